# Rooms: the folders of a library. Each room is one subsystem.
#
# qm_room(LIBRARY ROOM
#   SOURCES source...     # file names inside the room's folder
#   [HEADERS header...]   # file names of the public headers that belong to the room
#   [USES room...]        # rooms of the same library, declared before this one
#   [LINK library...])    # further libraries that the sources need
#
# A room is an object library LIBRARY_ROOM. Its private headers are beside its sources. Only rooms
# that use it, directly or through another room, can include them. A room can use only rooms that
# were declared before it, so there is no circle. scripts/check reads these declarations as well. It
# checks the public headers by the same rule, and the picture in docs/architecture.md.
#
# The caller sets these variables:
#   QM_ROOM_FOLDER    the folder of the rooms: "lib/", or empty
#   QM_ROOM_INCLUDES  the folder of the library's public headers; empty if there are none
#   QM_ROOM_HEADERS   the path of the public headers below that folder
#   QM_ROOM_LINK      the libraries that every room links
#
# qm_rooms(LIBRARY OUT) sets OUT to the targets of all rooms of a library.
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
  # In a unity build the compiler reads several sources as one. Each source defines
  # LOG_SOURCE. CMake replaces this name by a different one in each source.
  set_target_properties(${target} PROPERTIES UNITY_BUILD_UNIQUE_ID LOG_SOURCE)
  set_property(GLOBAL APPEND PROPERTY QM_ROOMS_${library} ${target})
endfunction()

function(qm_rooms library out)
  get_property(rooms GLOBAL PROPERTY QM_ROOMS_${library})
  set(${out} "${rooms}" PARENT_SCOPE)
endfunction()
