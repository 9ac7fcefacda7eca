# The platform's families, lower ones first: a family includes what it and those before it offer, nothing else.
# Read by the build, by the tests' list and by the test `structure`.

# zr_family(NAME HEADERS header... [LIBRARIES target...] [LABELS label...])
#   HEADERS         its public headers, include/platform/HEADER.h
#   LIBRARIES       what its sources and its tests link
#   TEST_LIBRARIES  what its tests link besides
#   LABELS          of its tests: threads runs them under ThreadSanitizer as well
# Its sources are in NAME/, what it offers to the families behind it in seam/NAME/.
set(ZR_FAMILIES)
macro(zr_family name)
  list(APPEND ZR_FAMILIES ${name})
  cmake_parse_arguments(ZR_FAMILY_${name} "" "" "HEADERS;LIBRARIES;TEST_LIBRARIES;LABELS" ${ARGN})
endmacro()

zr_family(base HEADERS base diagnostics errors export types LABELS threads)
zr_family(kernel HEADERS kernel mapping memory objects LABELS threads)
zr_family(windowing HEADERS windowing places controls screen cursor TEST_LIBRARIES zr_test_memory LABELS threads)
zr_family(files HEADERS files file_changes)
zr_family(store HEADERS stores LIBRARIES SQLite::SQLite3 LABELS threads)
zr_family(registry HEADERS registry LIBRARIES SQLite::SQLite3 TEST_LIBRARIES zr_test_memory zr_test_disk LABELS threads)
zr_family(time HEADERS time notify LABELS threads)
zr_family(com HEADERS com LABELS threads)
zr_family(pim HEADERS pim LIBRARIES SQLite::SQLite3 TEST_LIBRARIES zr_test_memory LABELS threads)
zr_family(shell HEADERS shell provisioning registry_readers TEST_LIBRARIES zr_test_memory)
zr_family(modules HEADERS modules LABELS threads)
zr_family(iphelper HEADERS iphelper LABELS threads)
zr_family(bus LABELS threads)
zr_family(connection HEADERS connection TEST_LIBRARIES zr_test_memory LABELS threads)
zr_family(tapi HEADERS tapi TEST_LIBRARIES zr_test_memory LABELS threads)
zr_family(mapi HEADERS mapi mapi_structures mapi_tags LIBRARIES SQLite::SQLite3 TEST_LIBRARIES zr_test_memory zr_test_disk
          LABELS threads)
zr_family(gdi HEADERS gdi input_panel TEST_LIBRARIES zr_test_memory zr_pangocairo LABELS threads)
zr_family(html HEADERS html TEST_LIBRARIES zr_test_memory LABELS threads)
