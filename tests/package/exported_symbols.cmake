# Checks what libQRV_IPM exports: exactly the C kernels of the interface, and
# C++ symbols only of the interface's classes and namespaces (plus the
# standard library's template code instantiated for them). A helper that
# slips into the dynamic symbol table fails this test.
#   cmake -DLIBRARY=<libQRV_IPM.so.1> -DNM=<nm> -P exported_symbols.cmake
cmake_minimum_required(VERSION 3.25)
execute_process(COMMAND ${NM} -D --defined-only ${LIBRARY} OUTPUT_VARIABLE table RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "${NM} failed on ${LIBRARY}")
endif()
set(c_expected rgb888_to_gray8_neon yuv422_to_rgb888_neon_layout yuyv422_to_rgb888_neon)
set(cxx_allowed CImageProcessMng ipmcommon ipm ipm_internal CConverter CCpuSerialConverter CCpuParaConverter
    CIpmFuncTable_RegisterDummyForDev)
set(c_found "")
set(strays "")
string(REPLACE "\n" ";" lines "${table}")
foreach(line IN LISTS lines)
  if(NOT line MATCHES "^[0-9a-f]* +[A-Za-z] +(.+)$")
    continue()
  endif()
  set(symbol ${CMAKE_MATCH_1})
  if(symbol MATCHES "^_Z")
    # The outermost name of a nested or plain symbol; std (St), special
    # names (typeinfo, vtables, guards) and substitutions are the standard
    # library's or the compiler's.
    if(symbol MATCHES "^_Z(N[KVR]*)?([0-9]+)")
      set(length ${CMAKE_MATCH_2})
      string(REGEX REPLACE "^_Z(N[KVR]*)?[0-9]+" "" rest "${symbol}")
      string(SUBSTRING "${rest}" 0 ${length} outer)
      if(NOT outer IN_LIST cxx_allowed OR symbol MATCHES "TripleBuffer")
        list(APPEND strays ${symbol})
      endif()
    endif()
  elseif(NOT symbol MATCHES "^(_init|_fini|_edata|_end|__bss_start)$")
    list(APPEND c_found ${symbol})
  endif()
endforeach()
list(SORT c_found)
if(NOT c_found STREQUAL c_expected)
  message(FATAL_ERROR "exported C symbols: ${c_found}\nexpected: ${c_expected}")
endif()
if(strays)
  message(FATAL_ERROR "exported symbols outside the interface: ${strays}")
endif()
message(STATUS "exports: the three C kernels and the interface's classes")
