# The timing class through the command line at a small size, statistics on: the header and one
# well-formed line per run (label, ": ", three numbers), then the table. Times are not checked.
#   cmake -DQUORV=path/to/quorv -DCASES=18 -P bsdf_speed_smoke.cmake
execute_process(
    COMMAND ${QUORV} --config g_runUnitTestRenderStatistics=true speedtest run
            net.quorv.speedtestclass.speedtestbsdftest --sample-size 3 --iterations 1000
    OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "quorv speedtest exited with ${rc}: ${err}")
endif()
string(REPLACE "\n" ";" lines "${out}")
set(header
    "|------------------------------------------------------------------"
    "| Sample size: 3"
    "| Number of iteration per timed sample: 1000"
    "| Statistics are in milliseconds (ms)"
    "| Statistics from left to right: mean, variance, standard deviation")
set(i 0)
foreach(expected IN LISTS header)
    list(GET lines ${i} line)
    if(NOT line STREQUAL expected)
        message(FATAL_ERROR "header line ${i}: '${line}', expected '${expected}'")
    endif()
    math(EXPR i "${i} + 1")
endforeach()
set(number "[0-9]+(\\.[0-9]+)?(e[-+]?[0-9]+)?")
set(runs 0)
foreach(line IN LISTS lines)
    if(line MATCHES "^(.+) (Legacy|Horizona) (SampleF|ComputeBSDF): (.*)$")
        if(NOT CMAKE_MATCH_4 MATCHES "^${number}, ${number}, ${number}$")
            message(FATAL_ERROR "malformed statistics line: '${line}'")
        endif()
        math(EXPR runs "${runs} + 1")
    endif()
endforeach()
math(EXPR expected "${CASES} * 4")
if(NOT runs EQUAL expected)
    message(FATAL_ERROR "${runs} statistics lines, expected ${expected}:\n${out}")
endif()
if(NOT out MATCHES "case \\(ns per call\\) +Legacy +Horizona +ratio")
    message(FATAL_ERROR "no table after the statistics:\n${out}")
endif()
