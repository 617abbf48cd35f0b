// Every message of the library's own catalogue, rendered to UTF-16.

#include "contest.h"

#include <kvutil/kvutil_msg.h>
#include <kvutil/umessage.h>

#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

namespace {

using Kvl::UMessage;
using Kvl::UString;

constexpr const char* TEXTS[] = {"/tmp/x", "No such file or directory", "42"};

bool takes_number(int index)
{
    return std::strstr(kvutil[index], "%d") != nullptr;
}

UString rendered_by_kvutil(int index)
{
    if (takes_number(index))
        return UMessage::sprintf(kvutil, index, 5);
    return UMessage::sprintf(kvutil, index, TEXTS[0], TEXTS[1], TEXTS[2]);
}

icu::UnicodeString rendered_by_snprintf(int index)
{
    char text[256];
    const int size = takes_number(index) ? std::snprintf(text, sizeof text, kvutil[index], 5)
                                         : std::snprintf(text, sizeof text, kvutil[index], TEXTS[0],
                                                         TEXTS[1], TEXTS[2]);
    return icu::UnicodeString::fromUTF8(icu::StringPiece(text, size));
}

template <class Render>
void time_catalogue(benchmark::State& state, Render render)
{
    constexpr int END = std::size(kvutil);
    for (int index = 1; index < END; ++index)
        require_agreement(state, rendered_by_kvutil(index).icu::UnicodeString::operator==(
                                     rendered_by_snprintf(index)));
    for (auto _ : state)
        for (int index = 1; index < END; ++index)
            benchmark::DoNotOptimize(render(index));
}

void catalogue_kvutil(benchmark::State& state)
{
    time_catalogue(state, rendered_by_kvutil);
}
BENCHMARK(catalogue_kvutil)
    ->Name("further, messages and exceptions: all 21 messages of the catalogue/kvutil");

void catalogue_snprintf(benchmark::State& state)
{
    time_catalogue(state, rendered_by_snprintf);
}
BENCHMARK(catalogue_snprintf)
    ->Name("further, messages and exceptions: all 21 messages of the catalogue/"
           "snprintf, ICU fromUTF8");

}  // namespace
