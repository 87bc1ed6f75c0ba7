# Every target of the project links zx_warnings; CI turns ZX_WERROR on.
add_library(zx_warnings INTERFACE)
target_compile_options(zx_warnings INTERFACE
  -Wall -Wextra -Wformat=2 -Wno-format-nonliteral -Wshadow -Wnon-virtual-dtor
  $<$<BOOL:${ZX_WERROR}>:-Werror>)
