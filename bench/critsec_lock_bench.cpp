// The same locks as in critsec_bench, in a process that has one thread only: the C library's
// mutexes then leave out what makes them work between threads.

#include "recursive_locks.h"

namespace {

using namespace RecursiveLocks;

#define ROW "further, locks and log: lock and unlock, one thread in the process"
#define KVUTIL_CONTESTANT(family, name)                                                            \
    BENCHMARK_TEMPLATE(one_section, family)->Name(ROW "/" name);                                   \
    BENCHMARK_TEMPLATE(nested_section, family)->Name(ROW ", nested/" name)

KVUTIL_CONTESTANT(in_kvutil, "kvutil");
KVUTIL_CONTESTANT(in_pthread, "pthread recursive mutex");
KVUTIL_CONTESTANT(in_std, "std::recursive_mutex");
#ifdef KVUTIL_BENCH_QT
KVUTIL_CONTESTANT(in_qt, "Qt QRecursiveMutex");
#endif
KVUTIL_CONTESTANT(in_floor, "floor");

}  // namespace
