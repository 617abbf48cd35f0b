// Identities as text against what a caller would use instead: Qt, where its package is installed,
// and the C library.

#include <kvutil/identity.h>

#include "rejection.h"

#include <cstdio>
#include <string>

#ifdef KVUTIL_BENCH_QT
#include <QByteArray>
#include <QString>
#include <QStringList>
#endif

namespace {

using Kvl::Identity;
using Kvl::UString;

constexpr unsigned char TYPE = 3;

std::string bits_of(std::size_t size)
{
    std::string bits(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        bits[i] = static_cast<char>(i * 7);
    return bits;
}

Identity identity_of(std::size_t size)
{
    return Identity(static_cast<short>(size), Identity::type_t(TYPE), bits_of(size).data());
}

/// The same block as a caller without the library would keep it.
std::string block_of(std::size_t size)
{
    return static_cast<char>(TYPE) + bits_of(size);
}

/// "<number of bits bytes>:<type and bits in hexadecimal>", one byte after the other.
std::string printed_by_printf(const std::string& block)
{
    char head[16];
    std::snprintf(head, sizeof head, "%zu:", block.size() - 1);
    std::string text(head);
    for (const char byte : block) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(byte));
        text.append(digits);
    }
    return text;
}

// ---- out ----

void print_kvutil(benchmark::State& state, std::size_t size)
{
    const Identity id = identity_of(size);
    require_agreement(state, id.str().utf8_str() == printed_by_printf(block_of(size)));
    for (auto _ : state)
        benchmark::DoNotOptimize(id.str());
}

/// What a text of that length costs.
void print_floor(benchmark::State& state, std::size_t size)
{
    const std::u16string text(printed_by_printf(block_of(size)).size(), u'0');
    for (auto _ : state)
        benchmark::DoNotOptimize(UString(text));
}

#ifdef KVUTIL_BENCH_QT
QString printed_by_qt(const QByteArray& block)
{
    return QString::number(block.size() - 1) + QLatin1Char(':') +
           QString::fromLatin1(block.toHex());
}

void print_qt(benchmark::State& state, std::size_t size)
{
    const QByteArray block = QByteArray::fromStdString(block_of(size));
    require_agreement(state,
                      printed_by_qt(block).toStdString() == printed_by_printf(block_of(size)));
    for (auto _ : state)
        benchmark::DoNotOptimize(printed_by_qt(block));
}
#endif

// ---- in ----

void read_kvutil(benchmark::State& state, std::size_t size)
{
    const UString text = identity_of(size).str();
    require_agreement(state, Identity::from_str(text) == identity_of(size));
    for (auto _ : state)
        benchmark::DoNotOptimize(Identity::from_str(text));
}

#ifdef KVUTIL_BENCH_QT
/// Deliberate: Qt skips what is no digit, so that a caller would have more to check.
QByteArray read_by_qt(const QString& text)
{
    const int colon = text.indexOf(QLatin1Char(':'));
    const int size = text.left(colon).toInt();
    const QByteArray block = QByteArray::fromHex(text.mid(colon + 1).toLatin1());
    return block.size() == size + 1 ? block : QByteArray();
}

void read_qt(benchmark::State& state, std::size_t size)
{
    const QByteArray block = QByteArray::fromStdString(block_of(size));
    const QString text = printed_by_qt(block);
    require_agreement(state, read_by_qt(text) == block);
    for (auto _ : state)
        benchmark::DoNotOptimize(read_by_qt(text));
}
#endif

// ---- the contest ----

#define OUT_OF "further, identifiers and dates: identity text out, "
#define IN_OF "further, identifiers and dates: identity text in, "

BENCHMARK_CAPTURE(print_kvutil, , 4)->Name(OUT_OF "4 bytes/kvutil");
BENCHMARK_CAPTURE(print_kvutil, , 28)->Name(OUT_OF "28 bytes/kvutil");
BENCHMARK_CAPTURE(print_kvutil, , 32767)->Name(OUT_OF "32767 bytes/kvutil");
BENCHMARK_CAPTURE(print_floor, , 4)->Name(OUT_OF "4 bytes/floor");
BENCHMARK_CAPTURE(print_floor, , 28)->Name(OUT_OF "28 bytes/floor");
BENCHMARK_CAPTURE(print_floor, , 32767)->Name(OUT_OF "32767 bytes/floor");
BENCHMARK_CAPTURE(read_kvutil, , 4)->Name(IN_OF "4 bytes/kvutil");
BENCHMARK_CAPTURE(read_kvutil, , 28)->Name(IN_OF "28 bytes/kvutil");
BENCHMARK_CAPTURE(read_kvutil, , 32767)->Name(IN_OF "32767 bytes/kvutil");
#ifdef KVUTIL_BENCH_QT
BENCHMARK_CAPTURE(print_qt, , 4)->Name(OUT_OF "4 bytes/Qt");
BENCHMARK_CAPTURE(print_qt, , 28)->Name(OUT_OF "28 bytes/Qt");
BENCHMARK_CAPTURE(print_qt, , 32767)->Name(OUT_OF "32767 bytes/Qt");
BENCHMARK_CAPTURE(read_qt, , 4)->Name(IN_OF "4 bytes/Qt");
BENCHMARK_CAPTURE(read_qt, , 28)->Name(IN_OF "28 bytes/Qt");
BENCHMARK_CAPTURE(read_qt, , 32767)->Name(IN_OF "32767 bytes/Qt");
#endif

// ---- rejected ----

const std::string MESSAGE = "PLXSV0661E Invalid Identity - hex conversion error for arg: 'str' "
                            "with value: '4:0301AB0102'";

void reject_kvutil(benchmark::State& state)
{
    const UString text(u"4:0301AB0102");  // capitals are no digits here
    time_rejection<Kvl::IllegalArgException>(
        state, [&text] { benchmark::DoNotOptimize(Identity::from_str(text)); }, MESSAGE);
}
BENCHMARK(reject_kvutil)->Name("rejected input: identity text/kvutil");

void reject_std(benchmark::State& state)
{
    time_throw(state, MESSAGE);
}
BENCHMARK(reject_std)->Name("rejected input: identity text/throw of runtime_error");

}  // namespace
