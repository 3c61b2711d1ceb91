# Installs the build into a fresh prefix, checks what lands there, builds the example
# application against it twice (CMake package EyeControl::EyeControl, pkg-config; both
# include forms) and runs it on the installed example eye set, then runs the installed
# eyes tool, which must find its libraries and the eye set from the prefix. Run by ctest:
#   cmake -DBUILD_DIR=... -DSOURCE_DIR=... -DWORK_DIR=... [-DEXAMPLE_ARGS=...]
#         [-DEMULATOR=...] -P test_install.cmake
cmake_minimum_required(VERSION 3.25)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}\n${out}")
  endif()
  set(run_output "${out}" PARENT_SCOPE)
endfunction()

string(REPLACE "|" ";" EXAMPLE_ARGS "${EXAMPLE_ARGS}")
set(prefix ${WORK_DIR}/prefix)

file(REMOVE_RECURSE ${WORK_DIR})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# Every library by its SONAME, the public headers only, the package files, the eye set.
set(missing "")
foreach(path
    lib/libEyeControl.so.1 lib/libVContent.so.1 lib/libLcdControl.so.1 lib/libColor.so.1
    lib/libHelper.so.1 include/EyeControl/EyeControl.h include/EyeControl/LcdControl.h
    lib/cmake/EyeControl/EyeControlConfig.cmake lib/pkgconfig/EyeControl.pc
    share/EyeControl/examples/eye/iris_type.xml)
  if(NOT EXISTS ${prefix}/${path})
    list(APPEND missing ${path})
  endif()
endforeach()
foreach(private FrameComposer.h Truncate.h)
  if(EXISTS ${prefix}/include/EyeControl/${private})
    list(APPEND missing "(private header installed: ${private})")
  endif()
endforeach()
if(missing)
  message(FATAL_ERROR "install into ${prefix} lacks: ${missing}")
endif()

foreach(mode OFF ON)
  set(build ${WORK_DIR}/example-pkgconfig-${mode})
  run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples -B ${build} -DCMAKE_PREFIX_PATH=${prefix}
      -DEYE_EXAMPLE_PKGCONFIG=${mode} ${EXAMPLE_ARGS})
  run(${CMAKE_COMMAND} --build ${build})
  run(${EMULATOR} ${build}/eye_example ${prefix}/share/EyeControl/examples/eye)
  foreach(expected "completed 1000" "left iris at 80,120")
    string(FIND "${run_output}" "${expected}" at)
    if(at LESS 0)
      message(FATAL_ERROR "example (pkg-config ${mode}) did not print \"${expected}\":\n${run_output}")
    endif()
  endforeach()
  message(STATUS "example built (pkg-config ${mode}) and ran:\n${run_output}")
endforeach()

# Where the tool was built (a cross build may go without it).
if(EXISTS ${prefix}/bin/eyes)
  run(${EMULATOR} ${prefix}/bin/eyes --version)
  if(NOT run_output MATCHES "^eyes [0-9]+\\.[0-9]+")
    message(FATAL_ERROR "eyes --version printed: ${run_output}")
  endif()
  run(${EMULATOR} ${prefix}/bin/eyes info)
  string(FIND "${run_output}" "share/EyeControl/examples/eye" at)
  if(at LESS 0 OR NOT run_output MATCHES "Irises:")
    message(FATAL_ERROR "installed eyes info did not summarise the installed eye set:\n${run_output}")
  endif()
  message(STATUS "installed eyes ran from the prefix")
endif()
file(REMOVE_RECURSE ${WORK_DIR})
