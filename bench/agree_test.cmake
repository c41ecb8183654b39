# ctest: every built system must return the oracle's rowids on small
# workloads of every generator, 2-D and 3-D, boxes and points, before and
# after deletes, nearest neighbours (k = 1, 10, 100) as far as each system
# promises them, through the library path and, for our extension and
# SQLite's R*Tree, through the SQL path (one round). Nothing here is timed:
# bench_compare exits non-zero on any MISMATCH or failed runner, and so
# does this test.
# Called with -DBIN=<dir of the bench programs> -DWORK=<scratch dir>.
file(MAKE_DIRECTORY ${WORK})
set(workloads)
foreach(job "uniform;boxes;2" "clustered;boxes;2" "parcel;boxes;2" "diagonal;points;2"
             "uniform;points;3" "parcel;boxes;3" "diagonal;boxes;3" "clustered;points;3")
  list(GET job 0 dist)
  list(GET job 1 kind)
  list(GET job 2 dims)
  set(file ${WORK}/${dist}-${kind}-${dims}d.wl)
  execute_process(COMMAND ${BIN}/bench_gen --out ${file} --dist ${dist} --kind ${kind}
                          --dims ${dims} --n 3000 --queries 0.00001:50,0.0001:50,0.01:10
                          --nearest 1:50,10:50,100:20
                          --deletes 0.2
                  RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "bench_gen failed for ${dist} ${kind} ${dims}-D")
  endif()
  list(APPEND workloads ${file})
endforeach()

set(systems brute:scan,sqlite:memory,zq:bulk-memory,zq:incr-memory,zq:bulk-file)
if(EXISTS ${BIN}/bench_run_sidx)
  string(APPEND systems ",sidx:mem-str,sidx:mem-rstar")
endif()
if(EXISTS ${BIN}/bench_run_boost)
  string(APPEND systems ",boost:rstar,boost:pack")
endif()
set(sql_configs "")
if(EXISTS ${BIN}/bench_run_sql)
  set(sql_configs --sql-configs sqlite-default,sqlite-best,zq-default,zq-best --rounds 1)
endif()
execute_process(COMMAND ${BIN}/bench_compare --bin ${BIN} --dir ${WORK} --systems ${systems}
                        ${sql_configs} ${workloads}
                OUTPUT_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "answers disagree or a runner failed:\n${out}")
endif()
