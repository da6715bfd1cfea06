# Every include points down. Run as a script (cmake -DROOT=<source dir> -P include_floors.cmake)
# on each build; it fails, naming each offending line, when a quoted include reaches above the
# including file's floor.
#
# Floors, lowest first:
#   protocol/   the wire formats and the pipe page's rules
#   platform/   the host, on top of protocol/
#   server/     on top of both; inside it, folder by folder:
#               common < crash < adapters < fd < fifo < process < diag < core
#               (support, then the objects, then the services and the entry)
#   client/     the library and posixctl, on protocol/ alone
# tests/ and bench/ may include anything.
cmake_minimum_required(VERSION 3.20)

if(NOT ROOT)
  message(FATAL_ERROR "include_floors: ROOT is not set")
endif()

set(SERVER_FLOORS common crash adapters fd fifo process diag core)

# Where a quoted include of a file in `tree` (and, in server/, of folder floor `floor`) may land:
# the file's own directory first, as the compiler looks, then these roots.
function(allowed_roots tree out)
  if(tree STREQUAL "protocol")
    set(roots protocol/include protocol/src)
  elseif(tree STREQUAL "platform")
    set(roots platform/include platform/src platform/loader protocol/include protocol/src)
  elseif(tree STREQUAL "client")
    set(roots client/include client/src client/posixctl protocol/include protocol/src)
  elseif(tree STREQUAL "server")
    set(roots server platform/include protocol/include)
  endif()
  set(${out} ${roots} PARENT_SCOPE)
endfunction()

set(failures "")
foreach(tree protocol platform server client)
  allowed_roots(${tree} roots)
  file(GLOB_RECURSE files RELATIVE ${ROOT} ${ROOT}/${tree}/*.h ${ROOT}/${tree}/*.cpp)
  foreach(file IN LISTS files)
    get_filename_component(dir ${file} DIRECTORY)
    set(floor -1)
    if(tree STREQUAL "server")
      string(REGEX REPLACE "^server/([^/]+)/.*" "\\1" folder ${file})
      list(FIND SERVER_FLOORS ${folder} floor)
    endif()
    file(STRINGS ${ROOT}/${file} lines REGEX "^[ \t]*#[ \t]*include[ \t]+\"")
    foreach(line IN LISTS lines)
      string(REGEX REPLACE "^[^\"]*\"([^\"]+)\".*" "\\1" target "${line}")
      set(found "")
      if(EXISTS ${ROOT}/${dir}/${target})
        set(found ${dir}/${target})
      else()
        foreach(root IN LISTS roots)
          if(EXISTS ${ROOT}/${root}/${target})
            set(found ${root}/${target})
            break()
          endif()
        endforeach()
      endif()
      set(why "")
      if(found STREQUAL "")
        set(why "found nowhere at or below this floor")
      elseif(floor GREATER -1 AND found MATCHES "^server/([^/]+)/")
        list(FIND SERVER_FLOORS ${CMAKE_MATCH_1} above)
        if(above GREATER floor)
          set(why "server/${CMAKE_MATCH_1}/ stands above server/${folder}/")
        endif()
      endif()
      if(NOT why STREQUAL "")
        string(APPEND failures "  ${file}: #include \"${target}\": ${why}\n")
      endif()
    endforeach()
  endforeach()
endforeach()

if(NOT failures STREQUAL "")
  message(FATAL_ERROR "Includes that point up:\n${failures}")
endif()
