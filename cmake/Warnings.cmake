# Warnings that every target of the project builds clean with, on g++ and clang.
function(ostrelink_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
        -Wsign-conversion -Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast -Werror=return-type)
endfunction()
