# Warnings every target of ours carries; clean builds are expected.
add_library(pelmor_warnings INTERFACE)
target_compile_options(pelmor_warnings INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow>
  $<$<COMPILE_LANGUAGE:C>:-Wall -Wextra -Wpedantic -Wconversion>)
