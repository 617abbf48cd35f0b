// Buffers for ARM calls against what a caller would write instead: the standard's records on the
// stack, with texts that ICU converts for each call, and glib's interned strings, where its package
// is installed, in place of a pool.

#include <kvutil/arm.h>
#include <kvutil/stpexception.h>

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#ifdef KVUTIL_BENCH_GLIB
#include <glib.h>
#endif

namespace {

using namespace Kvl;

UString numbered(int i)
{
    return UString(Utf8String("operation/check-in, variant " + std::to_string(i)));
}

std::string converted(const UString& text)
{
    std::string bytes;
    text.toUTF8String(bytes);
    return bytes;
}

// ---- a text that is known already ----

std::vector<UString> known_texts(int count)
{
    std::vector<UString> texts;
    for (int i = 0; i < count; ++i)
        texts.push_back(numbered(i));
    return texts;
}

template <class Find>
void find_each(benchmark::State& state, Find find)
{
    const std::vector<UString> texts = known_texts(static_cast<int>(state.range(0)));
    for (const UString& text : texts)
        if (converted(text) != find(text) || find(text) != find(text))
            state.SkipWithError("not the same string");
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(find(texts[i]));
        i = i + 1 == texts.size() ? 0 : i + 1;
    }
}

void pool_string_kvutil(benchmark::State& state)
{
    find_each(state, [](const UString& text) { return ArmBuffer::pool_string(nullptr, text); });
}
BENCHMARK(pool_string_kvutil)->Arg(10)->Arg(1000)->ThreadRange(1, 2);

#ifdef KVUTIL_BENCH_GLIB
void pool_string_glib(benchmark::State& state)
{
    find_each(state, [](const UString& text) { return g_intern_string(converted(text).c_str()); });
}
BENCHMARK(pool_string_glib)->Arg(10)->Arg(1000)->ThreadRange(1, 2);
#endif

// ---- the buffer of one transaction ----

/// What stands for a call.
int read_by_run_time(const arm_buffer4* buffer)
{
    const arm_subbuffer* const header = buffer->subbuffer_array[0];
    const auto& record = *reinterpret_cast<const arm_subbuffer_metric_values*>(header);
    return record.count + record.metric_value_array[2].metric_u.string32[0];
}

constexpr int EXPECTED = 3 + 'f';

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
        if (read_by_run_time(buffer.buffer4()) != EXPECTED)
            state.SkipWithError("not the same buffer");
        buffer.clear();
    }
}
BENCHMARK(metric_values_kvutil)->ThreadRange(1, 2);

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
        if (read_by_run_time(&buffer) != EXPECTED)
            state.SkipWithError("not the same buffer");
    }
}
BENCHMARK(metric_values_by_hand)->ThreadRange(1, 2);

// ---- registration data ----

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
BENCHMARK(identity_kvutil);

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
BENCHMARK(identity_by_hand);

void refused(benchmark::State& state)
{
    ArmBuffer buffer;
    while (buffer.count() < 4)
        buffer.add_buffer();
    for (auto _ : state) {
        try {
            buffer.add_buffer();
        } catch (const STPException& e) {
            benchmark::DoNotOptimize(&e);
        }
    }
}
BENCHMARK(refused);

}  // namespace
