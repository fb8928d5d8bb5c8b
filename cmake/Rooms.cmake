# Rooms: the folders of a library, one subsystem each.
#
# qm_room(LIBRARY ROOM
#   SOURCES source...     # in the folder of the room, without it
#   [HEADERS header...]   # the public headers that belong to the room, without their folder
#   [USES room...]        # rooms of the same library, declared before this one
#   [LINK library...])    # what else the sources need
#
# A room is an object library LIBRARY_ROOM. Its private headers, beside the sources, can be included
# by the rooms that use it, directly or by way of another room, and by nobody else. A room can use
# only rooms that were declared before, so there is no circle. scripts/check reads these declarations
# as well: it holds public headers to the same rule, and the picture in docs/architecture.md.
#
# The caller sets QM_ROOM_FOLDER (where the rooms stand: "lib/", or empty), QM_ROOM_INCLUDES (the
# folder of the library's public headers; empty when there are none), QM_ROOM_HEADERS (the part of the
# path below it), and QM_ROOM_LINK (what every room links). qm_rooms(LIBRARY OUT) answers the names of
# all rooms of a library.
function(qm_room library room)
  cmake_parse_arguments(arg "" "" "SOURCES;HEADERS;USES;LINK" ${ARGN})
  set(target "${library}_${room}")
  list(TRANSFORM arg_SOURCES PREPEND "${QM_ROOM_FOLDER}${room}/")
  add_library(${target} OBJECT ${arg_SOURCES})
  foreach(header IN LISTS arg_HEADERS)
    if(NOT EXISTS "${QM_ROOM_INCLUDES}/${QM_ROOM_HEADERS}${header}")
      message(FATAL_ERROR "${library}/${room}: there is no public header ${header}")
    endif()
  endforeach()
  target_include_directories(${target} PUBLIC
    ${QM_ROOM_INCLUDES} "${CMAKE_CURRENT_SOURCE_DIR}/${QM_ROOM_FOLDER}${room}")
  foreach(used IN LISTS arg_USES)
    if(NOT TARGET ${library}_${used})
      message(FATAL_ERROR "${library}/${room} uses ${used}, which is not declared before it")
    endif()
    target_link_libraries(${target} PUBLIC ${library}_${used})
  endforeach()
  target_link_libraries(${target} PUBLIC ${QM_ROOM_LINK} PRIVATE ${arg_LINK} qm_warnings)
  set_property(GLOBAL APPEND PROPERTY QM_ROOMS_${library} ${target})
endfunction()

function(qm_rooms library out)
  get_property(rooms GLOBAL PROPERTY QM_ROOMS_${library})
  set(${out} "${rooms}" PARENT_SCOPE)
endfunction()
