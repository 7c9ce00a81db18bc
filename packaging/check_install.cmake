# Installs the desktop component of the build in BUILD_DIR into a fresh staging folder under
# WORK_DIR (as a package build does, through DESTDIR) and checks what a desktop's menu reads: the
# entry, its keys, and an icon of every size, each the size its folder promises. Runs
# desktop-file-validate where it is installed.
cmake_minimum_required(VERSION 3.25)
file(REMOVE_RECURSE ${WORK_DIR})
set(stage ${WORK_DIR}/stage)
execute_process(COMMAND ${CMAKE_COMMAND} -E env DESTDIR=${stage}
                        ${CMAKE_COMMAND} --install ${BUILD_DIR} --component desktop --prefix /usr
                RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output TIMEOUT 60)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "cmake --install failed (${status}):\n${output}")
endif()

set(share ${stage}/usr/share)
set(entry ${share}/applications/com.tarvex.vumo.desktop)
if(NOT EXISTS ${entry})
  message(FATAL_ERROR "no desktop entry at ${entry}")
endif()
file(READ ${entry} content)
# Whole lines. The categories hold semicolons, which a CMake list would split, so they are
# checked on their own.
foreach(expected "Type=Application" "Name=Vumo" "Exec=vumo" "Icon=com.tarvex.vumo" "StartupWMClass=vumo")
  string(FIND "\n${content}" "\n${expected}\n" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "the desktop entry lacks the line ${expected}")
  endif()
endforeach()
string(FIND "\n${content}" "\nCategories=AudioVideo;Video;Recorder;\n" at)
if(at EQUAL -1)
  message(FATAL_ERROR "the desktop entry lacks the line Categories=AudioVideo;Video;Recorder;")
endif()

set(svg ${share}/icons/hicolor/scalable/apps/com.tarvex.vumo.svg)
if(NOT EXISTS ${svg})
  message(FATAL_ERROR "no scalable icon at ${svg}")
endif()
file(READ ${svg} picture LIMIT 200)
if(NOT picture MATCHES "^<svg ")
  message(FATAL_ERROR "${svg} is not an SVG picture")
endif()
foreach(size 48 128 256)
  set(png ${share}/icons/hicolor/${size}x${size}/apps/com.tarvex.vumo.png)
  if(NOT EXISTS ${png})
    message(FATAL_ERROR "no ${size}x${size} icon at ${png}")
  endif()
  # The PNG signature, then the header chunk with the width and height as big-endian words.
  file(READ ${png} header LIMIT 24 HEX)
  string(SUBSTRING "${header}" 0 16 signature)
  string(SUBSTRING "${header}" 32 8 width)
  string(SUBSTRING "${header}" 40 8 height)
  math(EXPR width "0x${width}")
  math(EXPR height "0x${height}")
  if(NOT signature STREQUAL "89504e470d0a1a0a" OR NOT width EQUAL size OR NOT height EQUAL size)
    message(FATAL_ERROR "${png} is not a ${size}x${size} PNG (signature ${signature}, ${width}x${height})")
  endif()
endforeach()

find_program(DESKTOP_FILE_VALIDATE desktop-file-validate)
if(DESKTOP_FILE_VALIDATE)
  execute_process(COMMAND ${DESKTOP_FILE_VALIDATE} ${entry} RESULT_VARIABLE status OUTPUT_VARIABLE output
                  ERROR_VARIABLE output TIMEOUT 30)
  if(NOT status EQUAL 0 OR NOT output STREQUAL "")
    message(FATAL_ERROR "desktop-file-validate refuses the entry:\n${output}")
  endif()
else()
  message(STATUS "desktop-file-validate is not installed; the entry's keys were checked by name only")
endif()
file(REMOVE_RECURSE ${WORK_DIR})
