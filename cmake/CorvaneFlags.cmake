# corvane_flags: how our own targets are compiled and linked. Each names it; nothing is set for a folder.
add_library(corvane_flags INTERFACE)
target_compile_options(corvane_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion
  $<$<BOOL:${CORVANE_WERROR}>:-Werror>
  # The same sources give the same bytes in every folder, and the log shows paths within the tree. A debug build
  # keeps the full paths in its debug information, where debuggers look for sources.
  $<IF:$<CONFIG:Debug>,-fmacro-prefix-map,-ffile-prefix-map>=${PROJECT_SOURCE_DIR}/=)
target_link_options(corvane_flags INTERFACE -Wl,--as-needed)
if(CORVANE_HARDENING)
  target_compile_options(corvane_flags INTERFACE
    -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3 -fstack-protector-strong)
  target_link_options(corvane_flags INTERFACE -Wl,-z,relro,-z,now)
endif()
