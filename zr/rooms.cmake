# The rooms of zr, and which of the others each may include: none may include a room that is named behind it.
# Read by the build and by the test `structure`.

# zr_room(NAME [USES room...] [LIBRARIES target...])
set(ZR_ROOMS)
macro(zr_room name)
  cmake_parse_arguments(ZR_ROOM_${name} "" "" "USES;LIBRARIES" ${ARGN})
  foreach(used IN LISTS ZR_ROOM_${name}_USES)
    if(NOT used IN_LIST ZR_ROOMS)
      message(FATAL_ERROR "room ${name} uses ${used}, which is not named before it")
    endif()
  endforeach()
  list(APPEND ZR_ROOMS ${name})
endmacro()

zr_room(base LIBRARIES PkgConfig::GLIB nlohmann_json::nlohmann_json ${CMAKE_DL_LIBS})
zr_room(vcard USES base LIBRARIES zr_evcard)
zr_room(icalendar USES base LIBRARIES zr_ical zr_icu)
zr_room(regfile USES base)
zr_room(mail USES base LIBRARIES zr_gmime)
zr_room(stores USES base vcard icalendar regfile mail)
zr_room(commands USES base vcard icalendar regfile mail stores LIBRARIES CLI11::CLI11)
