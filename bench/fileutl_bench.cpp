// Temporary files against Qt's, where its package is installed, and against the C library's. The
// floor is the three system calls that nothing can do without.

#include <kvutil/fileutl.h>

#include "memory_directory.h"
#include "rejection.h"

#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#ifdef KVUTIL_BENCH_QT
#include <QByteArray>
#include <QString>
#include <QTemporaryDir>
#include <QTemporaryFile>
#endif

namespace {

using Kvl::Fileutl;
using Kvl::UString;

/// Where all of them make their files.
const std::string& directory()
{
    static const memory_directory_t made;
    return made.path;
}

/// What mkstemp(), mkdtemp() and Qt make a new path of: they put six letters of their own in place
/// of the last six.
std::string new_path(const char* prefix)
{
    return directory() + '/' + prefix + std::string(6, 'X');
}

const int environment = setenv("TMP", directory().c_str(), 1);

/// What every way must leave: an empty file that only its owner may use.
bool is_as_agreed(const std::string& path)
{
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && status.st_size == 0 && S_ISREG(status.st_mode) &&
           (status.st_mode & 0777u) == 0600u;
}

// ---- a file ----

void create_and_delete()
{
    Fileutl::delete_tmp_file(Fileutl::create_tmp_file(1));
}

void file_kvutil(benchmark::State& state)
{
    const UString path = Fileutl::create_tmp_file(1);
    require_agreement(state, is_as_agreed(path.utf8_str()));
    Fileutl::delete_tmp_file(path);
    for (auto _ : state)
        create_and_delete();
}

#ifdef KVUTIL_BENCH_QT
/// Ours has a name, which a caller can hand to others. Asked for it, Qt gives the file one too.
void file_qt(benchmark::State& state)
{
    const QString pattern = QString::fromStdString(new_path("TMP"));
    QTemporaryFile file(pattern);
    require_agreement(state, file.open() && is_as_agreed(file.fileName().toStdString()));
    for (auto _ : state) {
        QTemporaryFile next(pattern);
        benchmark::DoNotOptimize(next.open());
        benchmark::DoNotOptimize(next.fileName());
        next.close();
        benchmark::DoNotOptimize(next.remove());
    }
}

/// Unasked, Qt may leave the file without a name.
void nameless_file_qt(benchmark::State& state)
{
    const QString pattern = QString::fromStdString(new_path("TMP"));
    for (auto _ : state) {
        QTemporaryFile next(pattern);
        benchmark::DoNotOptimize(next.open());
    }
}
#endif

void file_mkstemp(benchmark::State& state)
{
    const std::string pattern = new_path("TMP");
    std::string path = pattern;
    close(mkstemp(path.data()));
    require_agreement(state, is_as_agreed(path));
    unlink(path.c_str());
    for (auto _ : state) {
        std::string name = pattern;
        close(mkostemp(name.data(), O_CLOEXEC));
        unlink(name.c_str());
    }
}

void file_floor(benchmark::State& state)
{
    const std::string path = directory() + "/floor" + std::to_string(state.thread_index());
    for (auto _ : state) {
        close(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        unlink(path.c_str());
    }
}

#define ONE_THREAD "temporary file: create and delete/"
// Both threads try the same number first, so that one of them makes a call in vain.
#define TWO_THREADS "further, files: temporary file, 2 threads/"
#define NAMELESS "further, files: temporary file, its name not asked for/"

BENCHMARK(file_kvutil)->Name(ONE_THREAD "kvutil");
BENCHMARK(file_kvutil)->Name(TWO_THREADS "kvutil")->Threads(2)->UseRealTime();
BENCHMARK(file_kvutil)->Name(NAMELESS "kvutil");
BENCHMARK(file_mkstemp)->Name(ONE_THREAD "mkstemp");
BENCHMARK(file_mkstemp)->Name(TWO_THREADS "mkstemp")->Threads(2)->UseRealTime();
BENCHMARK(file_floor)->Name(ONE_THREAD "floor");
BENCHMARK(file_floor)->Name(TWO_THREADS "floor")->Threads(2)->UseRealTime();
#ifdef KVUTIL_BENCH_QT
BENCHMARK(file_qt)->Name(ONE_THREAD "Qt");
BENCHMARK(file_qt)->Name(TWO_THREADS "Qt")->Threads(2)->UseRealTime();
BENCHMARK(nameless_file_qt)->Name(NAMELESS "Qt");
#endif

// ---- many files ----

// A file that is taken costs one more system call, however many live beside it.
void file_among_live_ones(benchmark::State& state, int count)
{
    for (int n = 0; n < count; ++n)
        Fileutl::create_tmp_file(2);
    for (auto _ : state)
        create_and_delete();
    Fileutl::delete_tmp_files(2);
}

void group_of_files(benchmark::State& state, int count)
{
    for (auto _ : state) {
        for (int n = 0; n < count; ++n)
            Fileutl::create_tmp_file(3);
        Fileutl::delete_tmp_files(3);
    }
    state.counters["ns a file"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * count * 1e-9,
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void group_of_files_mkstemp(benchmark::State& state, int count)
{
    const std::string pattern = new_path("TMP");
    for (auto _ : state) {
        std::vector<std::string> names(static_cast<std::size_t>(count), pattern);
        for (std::string& name : names)
            close(mkostemp(name.data(), O_CLOEXEC));
        for (const std::string& name : names)
            unlink(name.c_str());
    }
}

#define AMONG "further, files: temporary file beside "
#define GROUP "further, files: temporary files, made and deleted as a group of "

BENCHMARK_CAPTURE(file_among_live_ones, , 1)->Name(AMONG "1 that lives/kvutil");
BENCHMARK_CAPTURE(file_among_live_ones, , 64)->Name(AMONG "64 that live/kvutil");
BENCHMARK_CAPTURE(file_among_live_ones, , 4096)->Name(AMONG "4096 that live/kvutil");
BENCHMARK_CAPTURE(group_of_files, , 16)->Name(GROUP "16/kvutil");
BENCHMARK_CAPTURE(group_of_files_mkstemp, , 16)->Name(GROUP "16/mkstemp");
BENCHMARK_CAPTURE(group_of_files, , 4096)->Name(GROUP "4096/kvutil");
BENCHMARK_CAPTURE(group_of_files_mkstemp, , 4096)->Name(GROUP "4096/mkstemp");

// ---- a private directory ----

#define PRIVATE "further, files: private directory, made and deleted/"

void private_directory_kvutil(benchmark::State& state)
{
    const UString name(u"a.txt");
    for (auto _ : state)
        Fileutl::delete_tmp_file(Fileutl::create_tmp_file(name, 1));
}
BENCHMARK(private_directory_kvutil)->Name(PRIVATE "kvutil");

#ifdef KVUTIL_BENCH_QT
void private_directory_qt(benchmark::State& state)
{
    const QString pattern = QString::fromStdString(new_path("DIR"));
    for (auto _ : state) {
        QTemporaryDir next(pattern);
        benchmark::DoNotOptimize(next.filePath(QStringLiteral("a.txt")));
    }
}
BENCHMARK(private_directory_qt)->Name(PRIVATE "Qt");
#endif

/// Deleted with the file that may be in it.
void private_directory_mkdtemp(benchmark::State& state)
{
    const std::string pattern = new_path("DIR");
    for (auto _ : state) {
        std::string path = pattern;
        if (mkdtemp(path.data()) == nullptr)
            state.SkipWithError("not made");
        const std::string file = path + "/a.txt";
        unlink(file.c_str());
        rmdir(path.c_str());
    }
}
BENCHMARK(private_directory_mkdtemp)->Name(PRIVATE "mkdtemp");

void private_directory_floor(benchmark::State& state)
{
    const std::string path = directory() + "/floor";
    const std::string file = path + "/a.txt";
    for (auto _ : state) {
        mkdir(path.c_str(), 0777);
        unlink(file.c_str());
        rmdir(path.c_str());
    }
}
BENCHMARK(private_directory_floor)->Name(PRIVATE "floor");

// ---- refused ----

const std::string MESSAGE =
    "PLXSV0664E Cannot create temporary file system object: No such file or directory";

#define REFUSED "rejected input: temporary file, no such directory/"

// It is logged, too.
void refuse_kvutil(benchmark::State& state)
{
    const UString prefix(u"missing/TMP");
    time_rejection<Kvl::STPException>(
        state, [&prefix] { Fileutl::make_tmp_object(prefix, false); }, MESSAGE);
}
BENCHMARK(refuse_kvutil)->Name(REFUSED "kvutil");

void refuse_std(benchmark::State& state)
{
    const std::string path = directory() + "/missing/TMP0";
    for (auto _ : state) {
        try {
            if (open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600) < 0)
                throw_text(MESSAGE);
        } catch (const std::runtime_error& e) {
            benchmark::DoNotOptimize(&e);
        }
    }
}
BENCHMARK(refuse_std)->Name(REFUSED "throw of runtime_error");

}  // namespace
