# ZX_SANITIZE applies to every target, so the library and its tests agree.
if(ZX_SANITIZE)
  string(REPLACE ";" "," _zx_san "${ZX_SANITIZE}")
  add_compile_options(-fsanitize=${_zx_san} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${_zx_san})
endif()
