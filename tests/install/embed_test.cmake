# Installs the build tree into a fresh prefix, then builds and runs examples/embed against it,
# once through find_package(quorv) and once through pkg-config, and runs the installed program.
# Arguments: BUILD_DIR, SOURCE_DIR, WORK_DIR, CXX.
file(REMOVE_RECURSE "${WORK_DIR}")
set(PREFIX "${WORK_DIR}/prefix")

function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
    endif()
    set(OUT "${out}" PARENT_SCOPE)
endfunction()

function(expect_output text)
    if(NOT text MATCHES "ray origin 0 0 0 direction 0 0 1\n")
        message(FATAL_ERROR "the centre ray of the example is not (0,0,0) -> (0,0,1):\n${text}")
    endif()
    if(NOT text MATCHES "ggx value [0-9.e+-]+ pdf [0-9.e+-]+\n" OR text MATCHES "ggx value 0 ")
        message(FATAL_ERROR "no positive GGX value in:\n${text}")
    endif()
endfunction()

run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${PREFIX}")
foreach(f lib/libquorv_host.so lib/libquorv_render.so lib/libquorv_framework.a bin/quorv
          lib/cmake/quorv/quorvConfig.cmake lib/cmake/quorv/quorvConfigVersion.cmake
          lib/pkgconfig/quorv.pc include/quorv/host/host.h include/quorv/interfaces/render/cameras/camera.h)
    if(NOT EXISTS "${PREFIX}/${f}")
        message(FATAL_ERROR "not installed: ${f}")
    endif()
endforeach()

# The shared host exports its API only: never the framework's record of its own copy.
run(nm -D --defined-only "${PREFIX}/lib/libquorv_host.so")
if(OUT MATCHES "g_quorv" OR NOT OUT MATCHES "_ZN5quorv4host4Host5Start")
    message(FATAL_ERROR "libquorv_host.so exports the wrong symbols:\n${OUT}")
endif()

run(${CMAKE_COMMAND} -S "${SOURCE_DIR}/examples/embed" -B "${WORK_DIR}/cmake" -G Ninja
    -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_PREFIX_PATH=${PREFIX})
run(${CMAKE_COMMAND} --build "${WORK_DIR}/cmake")
run("${WORK_DIR}/cmake/embed")
expect_output("${OUT}")

set(ENV{PKG_CONFIG_PATH} "${PREFIX}/lib/pkgconfig")
run(pkg-config --cflags --libs quorv)
string(STRIP "${OUT}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
# Every installed render interface header compiles on its own with those flags.
file(GLOB_RECURSE headers RELATIVE "${PREFIX}/include/quorv/interfaces" "${PREFIX}/include/quorv/interfaces/*.h")
foreach(h IN LISTS headers)
    file(WRITE "${WORK_DIR}/header.cpp" "#include \"${h}\"\n")
    run(${CXX} -fsyntax-only ${flags} "${WORK_DIR}/header.cpp")
endforeach()
run(pkg-config --variable=rendermodule quorv)
string(STRIP "${OUT}" module)
run(${CXX} ${SOURCE_DIR}/examples/embed/main.cpp -o "${WORK_DIR}/embed-pc" ${flags}
    "-DQUORV_RENDER_MODULE=\"${module}\"")
run("${WORK_DIR}/embed-pc")
expect_output("${OUT}")

# The installed command line finds the installed module beside it.
run("${PREFIX}/bin/quorv" classes)
if(NOT OUT MATCHES "net.quorv.render.cameraclass.perspective")
    message(FATAL_ERROR "the installed quorv lists no camera classes:\n${OUT}")
endif()
# ... and the intersector module beside the render module.
run("${PREFIX}/bin/quorv" intersect classes)
if(NOT OUT MATCHES "net.quorv.render.intersectionclass.embree")
    message(FATAL_ERROR "the installed quorv finds no intersector classes:\n${OUT}")
endif()
# ... and the preview providers module.
run("${PREFIX}/bin/quorv" preview providers)
if(NOT OUT MATCHES "net.quorv.previewproviders.materialball")
    message(FATAL_ERROR "the installed quorv finds no preview providers:\n${OUT}")
endif()
file(REMOVE_RECURSE "${WORK_DIR}")
