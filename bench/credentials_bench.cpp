// Files of identities against what a caller would use instead: the streams of the standard library,
// of C and of Qt, a call a field, into and out of owned records.

#include <kvutil/credentials.h>

#include "memory_directory.h"
#include "rejection.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
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
        std::fclose(std::fopen(in_place().c_str(), "wb"));
        if (link(in_place().c_str(), (directory_.path + "/other_name").c_str()) != 0)
            std::abort();
    }

    std::string in_place() const { return directory_.path + "/in_place"; }
    std::string replaced() const { return directory_.path + "/replaced"; }

private:
    const memory_directory_t directory_;
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

/// @param write_file  (credentials, records, bytes, path): writes one of the three to the path
template <class Write>
void time_writing(benchmark::State& state, std::size_t count, Write write_file)
{
    const files_t files;
    const Credentials credentials = credentials_of(count);
    const records_t records = records_of(credentials);
    credentials.write_to_file(files.in_place());
    const std::string expected = content_of(files.in_place());
    write_file(credentials, records, expected, files.in_place());
    require_agreement(state, content_of(files.in_place()) == expected);
    for (auto _ : state)
        write_file(credentials, records, expected, files.in_place());
}

void time_writing_kvutil(benchmark::State& state, std::size_t count)
{
    time_writing(state, count,
                 [](const Credentials& credentials, const records_t&, const std::string&,
                    const std::string& path) { credentials.write_to_file(path); });
}

void time_writing_floor(benchmark::State& state, std::size_t count)
{
    time_writing(state, count,
                 [](const Credentials&, const records_t&, const std::string& content,
                    const std::string& path) { write_floor(content, path); });
}

template <void (&write_file)(const records_t&, const std::string&)>
void time_writing_records(benchmark::State& state, std::size_t count)
{
    time_writing(state, count,
                 [](const Credentials&, const records_t& records, const std::string&,
                    const std::string& path) { write_file(records, path); });
}

// With a file that is synced and renamed, and a directory that is synced: the disk decides.
void time_replacing(benchmark::State& state, std::size_t count)
{
    const files_t files;
    const Credentials credentials = credentials_of(count);
    for (auto _ : state)
        credentials.write_to_file(files.replaced());
}

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

/// @param read_file  (path): the records
template <class Read>
void time_reading(benchmark::State& state, std::size_t count, Read read_file)
{
    const files_t files;
    const Credentials credentials = credentials_of(count);
    credentials.write_to_file(files.in_place());
    require_agreement(state, read_file(files.in_place()) == records_of(credentials));
    for (auto _ : state)
        benchmark::DoNotOptimize(read_file(files.in_place()));
}

template <records_t (&read_file)(const std::string&)>
void time_reading_records(benchmark::State& state, std::size_t count)
{
    time_reading(state, count, read_file);
}

Credentials read_by_kvutil(const std::string& path)
{
    Credentials credentials;
    credentials.read_from_file(path, false);
    return credentials;
}

void time_reading_kvutil(benchmark::State& state, std::size_t count)
{
    const files_t files;
    const Credentials credentials = credentials_of(count);
    credentials.write_to_file(files.in_place());
    require_agreement(state,
                      records_of(read_by_kvutil(files.in_place())) == records_of(credentials));
    for (auto _ : state)
        benchmark::DoNotOptimize(read_by_kvutil(files.in_place()));
}

// ---- the contest ----

/// @param contest  times the operation with so many records
void enter(const char* operation, const char* contestant,
           void (*contest)(benchmark::State&, std::size_t))
{
    const auto enter_case = [&](const std::string& name, std::size_t count) {
        benchmark::RegisterBenchmark((name + operation + "/" + contestant).c_str(),
                                     [=](benchmark::State& state) { contest(state, count); });
    };
    enter_case("further, files: credentials of 3 records, ", 3);
    enter_case("credentials of 100 records: ", 100);
    enter_case("further, files: credentials of 10000 records, ", 10000);
}

bool enter_all()
{
    const char* const write = "write in place";
    enter(write, "kvutil", time_writing_kvutil);
    enter(write, "ofstream", time_writing_records<write_ofstream>);
    enter(write, "stdio", time_writing_records<write_stdio>);
    enter(write, "floor", time_writing_floor);
    const char* const read = "read";
    enter(read, "kvutil", time_reading_kvutil);
    enter(read, "ifstream", time_reading_records<load_ifstream>);
    enter(read, "stdio", time_reading_records<load_stdio>);
    enter(read, "floor", time_reading_records<load_floor>);
#ifdef KVUTIL_BENCH_QT
    enter(write, "QFile", time_writing_records<write_qt>);
    enter(read, "QFile", time_reading_records<load_qt>);
#endif
    return true;
}

const bool is_entered = enter_all();

BENCHMARK_CAPTURE(time_replacing, , 100)
    ->Name("further, files: credentials of 100 records, replaced in one step/kvutil");

// ---- rejected ----

#define CUT_SHORT "rejected input: credentials file that ends early/"

/// A file that says to hold three groups and holds none.
class short_file_t {
public:
    short_file_t() { std::ofstream(path(), std::ios::binary) << std::string("\3\0", 2); }

    std::string path() const { return directory_.path + "/short"; }
    std::string message() const
    {
        return "PLXSV0666E Unable to read file '" + path() + "': Success.";
    }

private:
    const memory_directory_t directory_;
};

void reject_kvutil(benchmark::State& state)
{
    const short_file_t file;
    time_rejection<Kvl::RuntimeException>(
        state, [path = file.path()] { Credentials().read_from_file(path, false); }, file.message());
}
BENCHMARK(reject_kvutil)->Name(CUT_SHORT "kvutil");

void reject_stdio(benchmark::State& state)
{
    const short_file_t file;
    const std::string path = file.path();
    const std::string message = file.message();
    for (auto _ : state) {
        try {
            std::FILE* const stream = std::fopen(path.c_str(), "rb");
            char bytes[5];
            const bool is_whole = std::fread(bytes, 1, sizeof bytes, stream) == sizeof bytes;
            std::fclose(stream);
            if (!is_whole)
                throw_text(message);
        } catch (const std::runtime_error& e) {
            benchmark::DoNotOptimize(&e);
        }
    }
}
BENCHMARK(reject_stdio)->Name(CUT_SHORT "stdio and throw of runtime_error");

}  // namespace
