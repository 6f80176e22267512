# The warnings every target of this project is built with; a warning is an error.
add_library(cloudtunnel_warnings INTERFACE)
target_compile_options(cloudtunnel_warnings INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)
