# Installs the library into an empty folder, and builds and runs the program beside this file with what is
# there. Needs core_binary_dir, generator, cxx_compiler, build_type. The folder is each run's own, so that two at once
# do not meet; one that fails leaves it to be looked at.
string(RANDOM LENGTH 12 run)
set(work_dir ${core_binary_dir}/consumer/${run})
function(run)
  execute_process(COMMAND ${ARGV} COMMAND_ERROR_IS_FATAL ANY COMMAND_ECHO STDOUT)
endfunction()
run(${CMAKE_COMMAND} --install ${core_binary_dir} --prefix ${work_dir}/prefix --component rtls-core)
run(${CMAKE_COMMAND} -G ${generator} -S ${CMAKE_CURRENT_LIST_DIR} -B ${work_dir}/build
  -DCMAKE_PREFIX_PATH=${work_dir}/prefix -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
  -DCMAKE_CXX_COMPILER=${cxx_compiler} -DCMAKE_BUILD_TYPE=${build_type})
run(${CMAKE_COMMAND} --build ${work_dir}/build)
run(${work_dir}/build/consumer)
file(REMOVE_RECURSE ${work_dir})
