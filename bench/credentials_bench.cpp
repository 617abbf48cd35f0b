// Files of identities against what a caller would use instead: the streams of the standard library,
// of C and of Qt, a call a field, into and out of owned records; and identities as text.

#include <kvutil/credentials.h>
#include <kvutil/stpexception.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#ifdef KVUTIL_BENCH_QT
#include <QByteArray>
#include <QFile>
#endif

namespace {

using Kvl::Credentials;
using Kvl::Identity;

constexpr std::size_t BITS = 28;

Identity identity(unsigned char type)
{
    const std::string bits(BITS, static_cast<char>(type));
    return Identity(static_cast<short>(BITS), Identity::type_t(type), bits.data());
}

/// @param records  3 at least, user and primary group among them
Credentials credentials_of(std::size_t records)
{
    Credentials credentials;
    credentials.user = identity(1);
    credentials.primary_group = identity(2);
    for (std::size_t i = 2; i < records; ++i)
        credentials.groups.push_back(identity(static_cast<unsigned char>(i)));
    return credentials;
}

/// What a caller without the library would keep: the block of each identity.
typedef std::vector<std::string> records_t;

records_t records_of(const Credentials& credentials)
{
    records_t records;
    const auto add = [&](const Identity& id) {
        records.push_back(std::string(1, static_cast<char>(id.type())) +
                          std::string(reinterpret_cast<const char*>(id.bits()), BITS));
    };
    add(credentials.user);
    add(credentials.primary_group);
    for (const Identity& group : credentials.groups)
        add(group);
    return records;
}

/// A file with two names, which is therefore written where it is.
class files_t {
public:
    files_t()
    {
        // TMPDIR chooses the file system: best one in memory, so that no disk is timed.
        directory_ = std::filesystem::temp_directory_path() / "kvutil-bench-XXXXXX";
        if (mkdtemp(directory_.data()) == nullptr)
            std::abort();
        std::fclose(std::fopen(in_place().c_str(), "wb"));
        if (link(in_place().c_str(), other_name().c_str()) != 0)
            std::abort();
    }
    ~files_t()
    {
        unlink(in_place().c_str());
        unlink(other_name().c_str());
        unlink(replaced().c_str());
        rmdir(directory_.c_str());
    }
    files_t(const files_t&) = delete;
    files_t& operator=(const files_t&) = delete;

    std::string in_place() const { return directory_ + "/in_place"; }
    std::string replaced() const { return directory_ + "/replaced"; }

private:
    std::string other_name() const { return directory_ + "/other_name"; }

    std::string directory_;
};

std::string content_of(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// ---- writing ----

/// Two bytes, the low one first.
template <class Put>
void put_number(std::size_t number, Put put)
{
    const char bytes[2] = {static_cast<char>(number), static_cast<char>(number >> 8)};
    put(bytes, 2);
}

/// A call a field.
template <class Put>
void put_records(const records_t& records, Put put)
{
    put_number(records.size() - 2, put);
    for (const std::string& block : records) {
        put_number(block.size() - 1, put);
        put(block.data(), 1);
        put(block.data() + 1, block.size() - 1);
    }
}

void write_ofstream(const records_t& records, const std::string& path)
{
    std::ofstream file(path, std::ios::binary);
    put_records(records, [&](const char* bytes, std::size_t size) {
        file.write(bytes, static_cast<std::streamsize>(size));
    });
    file.close();
    if (!file)
        std::abort();
}

void write_stdio(const records_t& records, const std::string& path)
{
    std::FILE* const file = std::fopen(path.c_str(), "wb");
    put_records(records, [&](const char* bytes, std::size_t size) {
        if (std::fwrite(bytes, 1, size, file) != size)
            std::abort();
    });
    if (std::fclose(file) != 0)
        std::abort();
}

// The floor: the bytes are there already.
void write_floor(const std::string& content, const std::string& path)
{
    const int file = open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (write(file, content.data(), content.size()) != static_cast<ssize_t>(content.size()))
        std::abort();
    close(file);
}

#ifdef KVUTIL_BENCH_QT
void write_qt(const records_t& records, const std::string& path)
{
    QFile file(QString::fromStdString(path));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        std::abort();
    put_records(records, [&](const char* bytes, std::size_t size) {
        file.write(bytes, static_cast<qint64>(size));
    });
    file.close();
}
#endif

/// @param write_file  writes the records to a path
template <class Write>
void time_writing(benchmark::State& state, Write write_file)
{
    const files_t files;
    const Credentials credentials = credentials_of(static_cast<std::size_t>(state.range(0)));
    const records_t records = records_of(credentials);
    credentials.write_to_file(files.in_place());
    const std::string expected = content_of(files.in_place());
    write_file(credentials, records, expected, files.in_place());
    if (content_of(files.in_place()) != expected)
        state.SkipWithError("the peers do not write the same bytes");
    for (auto _ : state)
        write_file(credentials, records, expected, files.in_place());
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void write_in_place_kvutil(benchmark::State& state)
{
    time_writing(state, [](const Credentials& credentials, const records_t&, const std::string&,
                           const std::string& path) { credentials.write_to_file(path); });
}
void write_in_place_ofstream(benchmark::State& state)
{
    time_writing(state, [](const Credentials&, const records_t& records, const std::string&,
                           const std::string& path) { write_ofstream(records, path); });
}
void write_in_place_stdio(benchmark::State& state)
{
    time_writing(state, [](const Credentials&, const records_t& records, const std::string&,
                           const std::string& path) { write_stdio(records, path); });
}
void write_in_place_floor(benchmark::State& state)
{
    time_writing(state, [](const Credentials&, const records_t&, const std::string& content,
                           const std::string& path) { write_floor(content, path); });
}
BENCHMARK(write_in_place_kvutil)->Arg(3)->Arg(100)->Arg(10000);
BENCHMARK(write_in_place_ofstream)->Arg(3)->Arg(100)->Arg(10000);
BENCHMARK(write_in_place_stdio)->Arg(3)->Arg(100)->Arg(10000);
BENCHMARK(write_in_place_floor)->Arg(3)->Arg(100)->Arg(10000);
#ifdef KVUTIL_BENCH_QT
void write_in_place_qt(benchmark::State& state)
{
    time_writing(state, [](const Credentials&, const records_t& records, const std::string&,
                           const std::string& path) { write_qt(records, path); });
}
BENCHMARK(write_in_place_qt)->Arg(3)->Arg(100)->Arg(10000);
#endif

// With a file that is synced and renamed, and a directory that is synced: the disk decides.
void replace_kvutil(benchmark::State& state)
{
    const files_t files;
    const Credentials credentials = credentials_of(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state)
        credentials.write_to_file(files.replaced());
}
BENCHMARK(replace_kvutil)->Arg(100);

// ---- reading ----

/// A call a field.
template <class Get>
records_t get_records(Get get)
{
    const auto get_number = [&] {
        unsigned char bytes[2];
        get(reinterpret_cast<char*>(bytes), 2);
        return static_cast<std::size_t>(bytes[0] | bytes[1] << 8);
    };
    records_t records(get_number() + 2);
    for (std::string& block : records) {
        block.resize(get_number() + 1);
        get(block.data(), 1);
        get(block.data() + 1, block.size() - 1);
    }
    return records;
}

records_t load_ifstream(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return get_records([&](char* to, std::size_t size) {
        if (!file.read(to, static_cast<std::streamsize>(size)))
            std::abort();
    });
}

records_t load_stdio(const std::string& path)
{
    std::FILE* const file = std::fopen(path.c_str(), "rb");
    records_t records = get_records([&](char* to, std::size_t size) {
        if (std::fread(to, 1, size, file) != size)
            std::abort();
    });
    std::fclose(file);
    return records;
}

/// The floor: one read, and an owned block for each record.
records_t load_floor(const std::string& path)
{
    struct stat status;
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fstat(file, &status) != 0)
        std::abort();
    const auto size_bytes = static_cast<std::size_t>(status.st_size);
    const auto content = std::make_unique<char[]>(size_bytes);
    if (read(file, content.get(), size_bytes) != status.st_size)
        std::abort();
    close(file);
    const char* from = content.get();
    return get_records([&](char* to, std::size_t size) {
        std::copy_n(from, size, to);
        from += size;
    });
}

#ifdef KVUTIL_BENCH_QT
records_t load_qt(const std::string& path)
{
    QFile file(QString::fromStdString(path));
    if (!file.open(QIODevice::ReadOnly))
        std::abort();
    return get_records([&](char* to, std::size_t size) {
        if (file.read(to, static_cast<qint64>(size)) != static_cast<qint64>(size))
            std::abort();
    });
}
#endif

template <class Read>
void time_reading(benchmark::State& state, Read read_file)
{
    const files_t files;
    const Credentials credentials = credentials_of(static_cast<std::size_t>(state.range(0)));
    credentials.write_to_file(files.in_place());
    if (read_file(files.in_place()) != records_of(credentials))
        state.SkipWithError("the peers do not read the same records");
    for (auto _ : state)
        benchmark::DoNotOptimize(read_file(files.in_place()));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void read_kvutil(benchmark::State& state)
{
    const files_t files;
    const Credentials credentials = credentials_of(static_cast<std::size_t>(state.range(0)));
    credentials.write_to_file(files.in_place());
    for (auto _ : state) {
        Credentials read;
        read.read_from_file(files.in_place(), false);
        benchmark::DoNotOptimize(read);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(read_kvutil)->Arg(3)->Arg(100)->Arg(10000);

void read_ifstream(benchmark::State& state)
{
    time_reading(state, [](const std::string& path) { return load_ifstream(path); });
}
void read_stdio(benchmark::State& state)
{
    time_reading(state, [](const std::string& path) { return load_stdio(path); });
}
void read_floor(benchmark::State& state)
{
    time_reading(state, [](const std::string& path) { return load_floor(path); });
}
BENCHMARK(read_ifstream)->Arg(3)->Arg(100)->Arg(10000);
BENCHMARK(read_stdio)->Arg(3)->Arg(100)->Arg(10000);
BENCHMARK(read_floor)->Arg(3)->Arg(100)->Arg(10000);
#ifdef KVUTIL_BENCH_QT
void read_qt(benchmark::State& state)
{
    time_reading(state, [](const std::string& path) { return load_qt(path); });
}
BENCHMARK(read_qt)->Arg(3)->Arg(100)->Arg(10000);
#endif

// ---- text ----

std::string bits_of(std::size_t size)
{
    std::string bits(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        bits[i] = static_cast<char>(i * 7);
    return bits;
}

Identity identity_of(const benchmark::State& state)
{
    const auto size = static_cast<std::size_t>(state.range(0));
    return Identity(static_cast<short>(size), Identity::type_t(3), bits_of(size).data());
}

void print_kvutil(benchmark::State& state)
{
    const Identity id = identity_of(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(id.str());
}
BENCHMARK(print_kvutil)->Arg(4)->Arg(28)->Arg(32767);

void parse_kvutil(benchmark::State& state)
{
    const Kvl::UString text = identity_of(state).str();
    for (auto _ : state)
        benchmark::DoNotOptimize(Identity::from_str(text));
}
BENCHMARK(parse_kvutil)->Arg(4)->Arg(28)->Arg(32767);

void parse_rejected_kvutil(benchmark::State& state)
{
    const Kvl::UString text(u"4:0301AB0102");
    for (auto _ : state) {
        try {
            benchmark::DoNotOptimize(Identity::from_str(text));
            state.SkipWithError("accepted");
        } catch (const Kvl::IllegalArgException& e) {
            benchmark::DoNotOptimize(&e);
        }
    }
}
BENCHMARK(parse_rejected_kvutil);

#ifdef KVUTIL_BENCH_QT
QByteArray bytes_of(const benchmark::State& state)
{
    return QByteArray(1, 3) +
           QByteArray::fromStdString(bits_of(static_cast<std::size_t>(state.range(0))));
}

/// The digits alone, in Latin-1, are what Qt makes of the same bytes.
void print_qt(benchmark::State& state)
{
    const QByteArray bytes = bytes_of(state);
    if (identity_of(state).str().utf8_str() !=
        std::to_string(state.range(0)) + ":" + bytes.toHex().toStdString())
        state.SkipWithError("the peers do not print the same digits");
    for (auto _ : state)
        benchmark::DoNotOptimize(QString::fromLatin1(bytes.toHex()));
}
BENCHMARK(print_qt)->Arg(4)->Arg(28)->Arg(32767);

void parse_qt(benchmark::State& state)
{
    const QString digits = QString::fromLatin1(bytes_of(state).toHex());
    for (auto _ : state)
        benchmark::DoNotOptimize(QByteArray::fromHex(digits.toLatin1()));
}
BENCHMARK(parse_qt)->Arg(4)->Arg(28)->Arg(32767);
#endif

}  // namespace
