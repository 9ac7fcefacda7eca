# The platform finds it first; this is for the peer, Pango itself.
pkg_check_modules(BENCH_PANGO REQUIRED IMPORTED_TARGET pangocairo)
set(gdi_bench_PEERS PkgConfig::BENCH_PANGO)
