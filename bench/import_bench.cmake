# The peer is EVCard alone.
pkg_check_modules(EBOOK_CONTACTS REQUIRED IMPORTED_TARGET libebook-contacts-1.2)
set(import_bench_PEERS zr_core PkgConfig::EBOOK_CONTACTS)
