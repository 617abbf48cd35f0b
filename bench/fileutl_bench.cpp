// Temporary files against Qt's, where its package is installed, and against the C library's. The
// floor is the three system calls that nothing can do without.

#include <kvutil/fileutl.h>
#include <kvutil/stpexception.h>

#include <benchmark/benchmark.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
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

/// A directory for all of them, in memory where there is such a place: what a disk adds varies more
/// than all the rest.
class directory_t {
public:
    directory_t()
    {
        const char* const parent = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        path = std::string(parent) + "/fileutl-bench-XXXXXX";
        if (mkdtemp(path.data()) == nullptr)
            std::abort();
        setenv("TMP", path.c_str(), 1);
    }
    ~directory_t() { std::filesystem::remove_all(path); }

    std::string path;
};

const directory_t directory;

/// What every way must leave: an empty file that only its owner may use.
bool is_as_agreed(const std::string& path)
{
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && status.st_size == 0 && S_ISREG(status.st_mode) &&
           (status.st_mode & 0777u) == 0600u;
}

void file_kvutil(benchmark::State& state)
{
    const UString path = Fileutl::create_tmp_file(1);
    if (!is_as_agreed(path.utf8_str()))
        state.SkipWithError("not as agreed");
    Fileutl::delete_tmp_file(path);
    for (auto _ : state)
        Fileutl::delete_tmp_file(Fileutl::create_tmp_file(1));
}
BENCHMARK(file_kvutil)->ThreadRange(1, 2);

#ifdef KVUTIL_BENCH_QT
void file_qt(benchmark::State& state)
{
    const QString name = QString::fromStdString(directory.path + "/TMPXXXXXX");
    QTemporaryFile file(name);
    if (!file.open() || !is_as_agreed(file.fileName().toStdString()))
        state.SkipWithError("not as agreed");
    for (auto _ : state) {
        QTemporaryFile next(name);
        benchmark::DoNotOptimize(next.open());
        // Without being asked for it, Qt may leave the file without a name.
        benchmark::DoNotOptimize(next.fileName());
        next.close();
        benchmark::DoNotOptimize(next.remove());
    }
}
BENCHMARK(file_qt)->ThreadRange(1, 2);
#endif

void file_libc(benchmark::State& state)
{
    const std::string pattern = directory.path + "/TMPXXXXXX";
    std::string path = pattern;
    close(mkstemp(path.data()));
    if (!is_as_agreed(path))
        state.SkipWithError("not as agreed");
    unlink(path.c_str());
    for (auto _ : state) {
        std::string name = pattern;
        close(mkstemp(name.data()));
        unlink(name.c_str());
    }
}
BENCHMARK(file_libc)->ThreadRange(1, 2);

void file_floor(benchmark::State& state)
{
    const std::string path = directory.path + "/floor" + std::to_string(state.thread_index());
    for (auto _ : state) {
        close(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        unlink(path.c_str());
    }
}
BENCHMARK(file_floor)->ThreadRange(1, 2);

// A file that is taken costs one more system call, however many live beside it.
void file_among_live_ones_kvutil(benchmark::State& state)
{
    for (auto n = state.range(0); n > 0; --n)
        Fileutl::create_tmp_file(2);
    for (auto _ : state)
        Fileutl::delete_tmp_file(Fileutl::create_tmp_file(1));
    Fileutl::delete_tmp_files(2);
}
BENCHMARK(file_among_live_ones_kvutil)->RangeMultiplier(16)->Range(1, 4096);

void group_of_files_kvutil(benchmark::State& state)
{
    for (auto _ : state) {
        for (auto n = state.range(0); n > 0; --n)
            Fileutl::create_tmp_file(3);
        Fileutl::delete_tmp_files(3);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(group_of_files_kvutil)->RangeMultiplier(16)->Range(1, 4096);

void private_directory_kvutil(benchmark::State& state)
{
    const UString name(u"a.txt");
    for (auto _ : state)
        Fileutl::delete_tmp_file(Fileutl::create_tmp_file(name, 1));
}
BENCHMARK(private_directory_kvutil);

#ifdef KVUTIL_BENCH_QT
void private_directory_qt(benchmark::State& state)
{
    const QString name = QString::fromStdString(directory.path + "/DIRXXXXXX");
    for (auto _ : state) {
        QTemporaryDir next(name);
        benchmark::DoNotOptimize(next.filePath(QStringLiteral("a.txt")));
    }
}
BENCHMARK(private_directory_qt);
#endif

void private_directory_floor(benchmark::State& state)
{
    const std::string path = directory.path + "/floor";
    const std::string file = path + "/a.txt";
    for (auto _ : state) {
        mkdir(path.c_str(), 0777);
        unlink(file.c_str());
        rmdir(path.c_str());
    }
}
BENCHMARK(private_directory_floor);

// A directory that is not there.
void file_refused_kvutil(benchmark::State& state)
{
    const UString prefix(u"missing/TMP");
    for (auto _ : state) {
        try {
            Fileutl::make_tmp_object(prefix, false);
            state.SkipWithError("accepted");
        } catch (const Kvl::STPException& e) {
            benchmark::DoNotOptimize(&e);
        }
    }
}
BENCHMARK(file_refused_kvutil);

#ifdef KVUTIL_BENCH_QT
void file_refused_qt(benchmark::State& state)
{
    const QString name = QString::fromStdString(directory.path + "/missing/TMPXXXXXX");
    for (auto _ : state) {
        QTemporaryFile next(name);
        if (next.open())
            state.SkipWithError("accepted");
        benchmark::DoNotOptimize(next.errorString());
    }
}
BENCHMARK(file_refused_qt);
#endif

}  // namespace
