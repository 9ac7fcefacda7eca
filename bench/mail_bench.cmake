# Beside it the program notmuch, and GMime.
pkg_check_modules(GMIME REQUIRED IMPORTED_TARGET gmime-3.0)
set(mail_bench_PEERS PkgConfig::GMIME)
