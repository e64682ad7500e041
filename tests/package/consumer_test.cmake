# Installs the build into a fresh prefix, then builds and runs a small host
# against it twice: through find_package(QRV_IPM CONFIG) and through
# pkg-config.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT code EQUAL 0)
    message(FATAL_ERROR "failed (${code}): ${ARGN}\n${out}\n${err}")
  endif()
endfunction()

run(${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${prefix})

# The consumer includes every installed header, so only the rest is listed.
foreach(required
    lib/libQRV_IPM.so.1 lib/libQRV_Image.so.1 lib/libRV_Log.so.1 lib/libCWatchTime.so.1
    lib/cmake/QRV_IPM/QRV_IPMConfig.cmake lib/pkgconfig/qrv_ipm.pc share/qrv_ipm/plugins/libCIpmUserCustom.so)
  if(NOT EXISTS ${prefix}/${required})
    message(FATAL_ERROR "the installed prefix lacks ${required}")
  endif()
endforeach()
# The installed headers are exactly the interface: an internal helper header
# installed by accident fails here.
file(GLOB_RECURSE installed RELATIVE ${prefix}/include/qrv_ipm ${prefix}/include/qrv_ipm/*)
list(SORT installed)
set(interface CImageProcessMng.h CIpmCpuEnv.h CIpmEnv.h CIpmFuncTable.h CIpmGpuEnv.h CIpmUserCustomLoader.h
    CWatchTime.h Converter/CConverter.h Converter/CCpuParaConverter.h Converter/CCpuSerialConverter.h
    Converter/CpuConvertKernel.h IpmTypes.h IpmUserCustom.h QRV_Image.h QRV_Log.h)
if(NOT installed STREQUAL interface)
  message(FATAL_ERROR "installed headers: ${installed}\nthe interface: ${interface}")
endif()
if(EXISTS ${prefix}/lib/libCIpmUserCustom.so)
  message(FATAL_ERROR "the example plug-in must stay out of lib/, where every host would load it")
endif()

# CMake package.
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/package/consumer -B ${WORK_DIR}/cmake-build
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
run(${WORK_DIR}/cmake-build/consumer)

# pkg-config.
set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
execute_process(COMMAND pkg-config --cflags --libs qrv_ipm OUTPUT_VARIABLE flags
                RESULT_VARIABLE code OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT code EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know qrv_ipm")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
run(c++ ${SOURCE_DIR}/tests/package/consumer/consumer.cpp ${flags} -Wl,-rpath,${prefix}/lib
    -o ${WORK_DIR}/pkgconfig-consumer)
run(${WORK_DIR}/pkgconfig-consumer)

# A plug-in built against the package as the plug-in guide shows, placed
# beside the installed ipm-run, which then lists its functions.
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/plugins/example -B ${WORK_DIR}/plugin-build
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/plugin-build)
file(COPY ${WORK_DIR}/plugin-build/libCIpmUserCustom.so DESTINATION ${prefix}/bin/plugins)
execute_process(COMMAND ${prefix}/bin/ipm-run --list
                RESULT_VARIABLE code OUTPUT_VARIABLE listing ERROR_VARIABLE err)
if(NOT code EQUAL 0 OR NOT listing MATCHES "Mirror horizontal .RGB888/BGR888."
   OR NOT listing MATCHES "Threshold .Gray8.")
  message(FATAL_ERROR "ipm-run does not list the plug-in built against the package (${code}):\n${listing}\n${err}")
endif()

message(STATUS "consumer built and ran through the CMake package and pkg-config; plug-in built and listed")
