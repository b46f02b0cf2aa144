package com.ostrelink.core.transmitter;

import java.io.File;
import java.net.URISyntaxException;
import java.net.URL;
import java.security.CodeSource;
import java.util.Locale;

/**
 * The native side of Java calls into other runtimes. Loading this class loads the installed
 * native library, found from the jar that holds the class:
 * {@code <root>/Binaries/Jvm/OstrelinkJvmRuntime.jar} beside
 * {@code <root>/Binaries/Native/<Linux|MacOs>/<X64|ARM64>/}.
 *
 * <p>Every method but {@link #getNativeError()} answers a failure with its own code and leaves
 * the text for {@link #getNativeError()}, which is not cleared by a success: read it only after
 * a failure code. The text is one for the process, so after two failures at the same time it may
 * belong to the other thread.
 */
public final class TransmitterWrapper {
    static {
        System.load(nativeLibraryPath());
    }

    private TransmitterWrapper() {}

    /**
     * Sends a whole message (11-byte header first) to the runtime its header names.
     *
     * @return the length of the reply, 0 for an empty array, -2 on failure
     */
    public static native int sendCommand(byte[] message);

    /**
     * Reads the reply of the last {@link #sendCommand} of this thread into {@code response}, which
     * must be as long as sendCommand said and hold the command's targetRuntime in byte 0. Bytes
     * the reply does not fill come back as zero.
     *
     * @return 0, or -3 on failure
     */
    public static native int readResponse(byte[] response);

    /**
     * Only the low 8 bits of the three numbers are used.
     *
     * @return the transmitter's result as an unsigned byte, 0 to 255; 252 on failure
     */
    public static native int setEmbeddedRuntime(
            int callingRuntime, int calledRuntime, int runtimeVersion, String path);

    /**
     * Only the low 8 bits of {@code flag} are used; {@code message} must hold a whole header.
     *
     * @return the transmitter's result as an unsigned byte, 0 to 255; 251 on failure
     */
    public static native int deployRuntime(byte[] message, String text, int flag);

    /** @return the Configs library's result, or -6 on failure */
    public static native int setConfigSource(String source);

    /** @return the Configs library's result, or -7 on failure */
    public static native int setWorkingDirectory(String path);

    /** @return the text of the last failure of any native, "Undefined error" before the first */
    public static native String getNativeError();

    private static String nativeLibraryPath() {
        String os = System.getProperty("os.name", "").toLowerCase(Locale.ROOT);
        String arch = System.getProperty("os.arch", "").toLowerCase(Locale.ROOT);
        String platform = os.contains("mac") ? "MacOs" : "Linux";
        String suffix = os.contains("mac") ? ".dylib" : ".so";
        String archDir;
        if (arch.equals("amd64") || arch.equals("x86_64")) {
            archDir = "X64";
        } else if (arch.equals("aarch64") || arch.equals("arm64")) {
            archDir = "ARM64";
        } else {
            throw new UnsatisfiedLinkError(
                    "Ostrelink: no native library for the architecture " + arch);
        }
        File jvmDir = containingDirectory();
        File library =
                new File(
                        jvmDir,
                        ".." + File.separator + "Native" + File.separator + platform
                                + File.separator + archDir + File.separator
                                + "libOstrelinkJvmRuntimeNative" + suffix);
        try {
            library = library.getCanonicalFile();
        } catch (java.io.IOException e) {
            library = library.getAbsoluteFile();
        }
        if (!library.isFile()) {
            throw new UnsatisfiedLinkError(
                    "Ostrelink: native library not found: " + library.getPath());
        }
        return library.getPath();
    }

    // The directory of the jar (or class directory) that this class was loaded from.
    private static File containingDirectory() {
        CodeSource source = TransmitterWrapper.class.getProtectionDomain().getCodeSource();
        URL location = source == null ? null : source.getLocation();
        if (location == null) {
            throw new UnsatisfiedLinkError(
                    "Ostrelink: cannot tell where TransmitterWrapper was loaded from");
        }
        File file;
        try {
            file = new File(location.toURI());
        } catch (URISyntaxException | IllegalArgumentException e) {
            throw new UnsatisfiedLinkError(
                    "Ostrelink: cannot tell where TransmitterWrapper was loaded from: "
                            + location);
        }
        File dir = file.isDirectory() ? file : file.getParentFile();
        if (dir == null) {
            throw new UnsatisfiedLinkError(
                    "Ostrelink: cannot tell where TransmitterWrapper was loaded from: "
                            + location);
        }
        return dir;
    }
}
