// Buffers for ARM calls against what a caller would write instead: the standard's records on the
// stack, with texts that ICU converts for each call, and glib's interned strings in the place of a
// pool. The floor of a pool is a look-up of the text as it is, without another thread in mind.

#include "rejection.h"

#include <kvutil/arm.h>

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#ifdef KVUTIL_BENCH_GLIB
#include <glib.h>
#endif

namespace {

using namespace Kvl;

std::string converted(const UString& text)
{
    std::string bytes;
    text.toUTF8String(bytes);
    return bytes;
}

// ---- A text that is pooled already ----

std::vector<UString> numbered_texts(int count)
{
    std::vector<UString> texts;
    for (int i = 0; i < count; ++i)
        texts.emplace_back(Utf8String("operation/check-in, variant " + std::to_string(i)));
    return texts;
}

/// @param find  the string of a text
template <class Find>
void find_each(benchmark::State& state, int count, Find find)
{
    const std::vector<UString> texts = numbered_texts(count);
    for (const UString& text : texts)
        require_agreement(state, converted(text) == find(text) && find(text) == find(text));
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(find(texts[i]));
        i = i + 1 == texts.size() ? 0 : i + 1;
    }
}

void pool_kvutil(benchmark::State& state, int count)
{
    find_each(state, count,
              [](const UString& text) { return ArmBuffer::pool_string(nullptr, text); });
}

#ifdef KVUTIL_BENCH_GLIB
void pool_glib(benchmark::State& state, int count)
{
    find_each(state, count,
              [](const UString& text) { return g_intern_string(converted(text).c_str()); });
}
#endif

void pool_floor(benchmark::State& state, int count)
{
    const auto units_of = [](const UString& text) {
        return std::u16string_view(text.getBuffer(), static_cast<std::size_t>(text.length()));
    };
    const std::vector<UString> texts = numbered_texts(count);
    std::unordered_map<std::u16string_view, std::string> pool;
    for (const UString& text : texts)
        pool.emplace(units_of(text), converted(text));
    find_each(state, count,
              [&](const UString& text) { return pool.find(units_of(text))->second.c_str(); });
}

#define POOL "further, measurement: text that is pooled, "
#define KVUTIL_POOL(function, contestant)                                                          \
    BENCHMARK_CAPTURE(function, few, 10)->Name(POOL "one of 10/" contestant);                      \
    BENCHMARK_CAPTURE(function, many, 1000)->Name(POOL "one of 1000/" contestant);                 \
    BENCHMARK_CAPTURE(function, two_threads, 1000)                                                 \
        ->Name(POOL "one of 1000, 2 threads/" contestant)                                          \
        ->Threads(2)                                                                               \
        ->UseRealTime()

KVUTIL_POOL(pool_kvutil, "kvutil");
#ifdef KVUTIL_BENCH_GLIB
KVUTIL_POOL(pool_glib, "glib g_intern_string");
#endif
KVUTIL_POOL(pool_floor, "floor");

// ---- The buffer of one transaction ----

/// What stands for a call.
bool is_as_expected(const arm_buffer4* buffer)
{
    const arm_subbuffer* const header = buffer->subbuffer_array[0];
    const auto& record = *reinterpret_cast<const arm_subbuffer_metric_values*>(header);
    return record.count == 3 && record.metric_value_array[0].metric_u.gauge32 == 17 &&
           record.metric_value_array[1].metric_u.counter64 == 18 &&
           std::string_view(record.metric_value_array[2].metric_u.string32) == "file.c";
}

void metric_values_kvutil(benchmark::State& state)
{
    const UString text(u"file.c");
    ArmBuffer buffer;
    ArmMetricValuesBuffer values;
    for (auto _ : state) {
        values.add_value(0, ARM_METRIC_FORMAT_GAUGE32, 0, true, 17);
        values.add_value(1, ARM_METRIC_FORMAT_COUNTER64, 0, true, 18LL);
        values.add_value(0, true, text);
        buffer.add_buffer(values);
        require_agreement(state, is_as_expected(buffer.buffer4()));
        buffer.clear();
    }
}
BENCHMARK(metric_values_kvutil)->Name("further, measurement: buffer with 3 metric values/kvutil");

void metric_values_by_hand(benchmark::State& state)
{
    const UString text(u"file.c");
    for (auto _ : state) {
        const std::string bytes = converted(text);
        arm_metric metrics[] = {{0, ARM_METRIC_FORMAT_GAUGE32, 0, ARM_TRUE, {}},
                                {1, ARM_METRIC_FORMAT_COUNTER64, 0, ARM_TRUE, {}},
                                {6, ARM_METRIC_FORMAT_STRING32, 0, ARM_TRUE, {}}};
        metrics[0].metric_u.gauge32 = 17;
        metrics[1].metric_u.counter64 = 18;
        metrics[2].metric_u.string32 = bytes.c_str();
        arm_subbuffer_metric_values record = {{ARM_SUBBUFFER_METRIC_VALUES}, 3, metrics};
        arm_subbuffer* array[] = {ARM_SB(record)};
        const arm_buffer4 buffer = {1, array};
        benchmark::DoNotOptimize(buffer);
        require_agreement(state, is_as_expected(&buffer));
    }
}
BENCHMARK(metric_values_by_hand)
    ->Name("further, measurement: buffer with 3 metric values/records on the stack");

// ---- Registration data ----

void identity_kvutil(benchmark::State& state)
{
    ArmBuffer buffer(true);
    for (auto _ : state) {
        ArmTransIdentyBuffer identity;
        identity.add_identity_prop(u"component", u"repository server");
        identity.add_identity_prop(u"operation", u"check-in");
        identity.add_context_prop(u"repository");
        identity.add_context_prop(u"element");
        buffer.add_buffer(identity);
        benchmark::DoNotOptimize(buffer);
        buffer.clear();
    }
}
BENCHMARK(identity_kvutil)
    ->Name("further, measurement: identity with 2 properties and 2 names/kvutil");

void identity_by_hand(benchmark::State& state)
{
    for (auto _ : state) {
        const std::string component = converted(UString(u"component"));
        const std::string server = converted(UString(u"repository server"));
        const std::string operation = converted(UString(u"operation"));
        const std::string check_in = converted(UString(u"check-in"));
        const std::string repository = converted(UString(u"repository"));
        const std::string element = converted(UString(u"element"));
        const arm_property properties[] = {{component.c_str(), server.c_str()},
                                           {operation.c_str(), check_in.c_str()}};
        const char* names[] = {repository.c_str(), element.c_str()};
        arm_subbuffer_tran_identity record = {
            {ARM_SUBBUFFER_TRAN_IDENTITY}, 2, properties, 2, names, nullptr};
        arm_subbuffer* array[] = {ARM_SB(record)};
        const arm_buffer4 buffer = {1, array};
        benchmark::DoNotOptimize(buffer);
    }
}
BENCHMARK(identity_by_hand)
    ->Name("further, measurement: identity with 2 properties and 2 names/records on the stack");

// ---- Refused ----

const std::string REFUSAL = "PLXSV0670E Application Resource Measurement (ARM) error: "
                            "ArmBuffer::add_buffer():  Max Buffer count exceeded..";

void refused_kvutil(benchmark::State& state)
{
    ArmBuffer buffer;
    while (buffer.count() < 4)
        buffer.add_buffer();
    time_rejection<STPException>(
        state, [&] { buffer.add_buffer(UString(u"detail")); }, REFUSAL);
}
BENCHMARK(refused_kvutil)->Name("rejected input: a fifth ARM sub-buffer/kvutil");

void refused_throw(benchmark::State& state)
{
    time_throw(state, REFUSAL);
}
BENCHMARK(refused_throw)->Name("rejected input: a fifth ARM sub-buffer/throw of the text");

}  // namespace
