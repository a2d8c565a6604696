# kavo_flags: warnings as errors and, where asked for, sanitizers. Every target of ours links it.
add_library(kavo_flags INTERFACE)
target_compile_options(kavo_flags INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)
target_link_libraries(kavo_flags INTERFACE Threads::Threads)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # Unique symbols would keep the library from being unloaded.
  target_compile_options(kavo_flags INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-fno-gnu-unique>)
endif()
if(KAVO_SANITIZE)
  target_compile_options(kavo_flags INTERFACE -fsanitize=${KAVO_SANITIZE} -fno-omit-frame-pointer
                                              -fno-sanitize-recover=all)
  target_link_options(kavo_flags INTERFACE -fsanitize=${KAVO_SANITIZE})
endif()
