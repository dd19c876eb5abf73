# Runs kvane_pingdump (DUMP) with 1, 2 and 3 OpenMP and OpenBLAS threads and
# requires identical outputs. Called by CTest with -DDUMP=... -DDIR=...
foreach(threads 1 2 3)
  execute_process(
    COMMAND ${CMAKE_COMMAND} -E env OMP_NUM_THREADS=${threads} OPENBLAS_NUM_THREADS=${threads}
            ${DUMP} ${DIR}/pingdump-${threads}.bin
    RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "kvane_pingdump with ${threads} threads failed: ${rc}")
  endif()
endforeach()
foreach(threads 2 3)
  execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files
    ${DIR}/pingdump-1.bin ${DIR}/pingdump-${threads}.bin RESULT_VARIABLE differ)
  if(NOT differ EQUAL 0)
    message(FATAL_ERROR "outputs with ${threads} threads differ from those with 1 thread")
  endif()
endforeach()
file(SIZE ${DIR}/pingdump-1.bin bytes)
message(STATUS "outputs identical with 1, 2 and 3 threads (${bytes} bytes)")
