# The JDK that javac belongs to, whether JAVA_HOME is set or not: it gives jni.h to the build and
# is the JVM that the tests and benchmarks run (OSTRELINK_JDK_HOME).
find_package(Java 17 REQUIRED COMPONENTS Development)
get_filename_component(OSTRELINK_JDK_HOME ${Java_JAVAC_EXECUTABLE} REALPATH)
get_filename_component(OSTRELINK_JDK_HOME ${OSTRELINK_JDK_HOME} DIRECTORY)
get_filename_component(OSTRELINK_JDK_HOME ${OSTRELINK_JDK_HOME} DIRECTORY)
if(NOT JAVA_HOME AND NOT DEFINED ENV{JAVA_HOME})
    set(JAVA_HOME ${OSTRELINK_JDK_HOME})
endif()
find_package(JNI REQUIRED COMPONENTS JVM)
