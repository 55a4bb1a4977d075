# The house rules for every target of ours: warnings, and the sanitizers when they are asked for.
add_library(dorado_warnings INTERFACE)
target_compile_options(dorado_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)

if(DORADO_SANITIZE)
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
                        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
endif()

# Tells the fuzzer which code an input reaches.
if(DORADO_FUZZ)
    add_compile_options(-fsanitize=fuzzer-no-link -O1)
endif()
