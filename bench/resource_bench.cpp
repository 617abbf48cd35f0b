// A resource of the host program's own: copied, and named in a message.

#include "contest.h"

#include <kvutil/resource.h>
#include <kvutil/umessage.h>

#include <memory>
#include <string>

namespace {

using Kvl::Resource;
using Kvl::UMessage;
using Kvl::UString;

const char* catalogue[] = {"bench 1", "BENCH0001E Unable to lock '%s'."};

class File : public Resource {
public:
    explicit File(const UString& path) : path_(path) {}
    Resource* do_clone() const override { return new File(*this); }
    UString text() const override { return path_; }

private:
    UString path_;
};

/// The same as a program writes it without the library.
class PlainFile {
public:
    explicit PlainFile(const std::u16string& path) : path_(path) {}
    virtual ~PlainFile() = default;
    virtual std::unique_ptr<PlainFile> clone() const { return std::make_unique<PlainFile>(*this); }
    virtual std::u16string text() const { return path_; }

private:
    std::u16string path_;
};

const char16_t PATH[] = u"/vobs/proj/src/lib/main.c";

void clone_kvutil(benchmark::State& state)
{
    const File file{UString(PATH)};
    for (auto _ : state)
        delete file.clone();
}
BENCHMARK(clone_kvutil)->Name("further, messages and exceptions: copy of a resource/kvutil");

void clone_plain(benchmark::State& state)
{
    const PlainFile file(PATH);
    for (auto _ : state)
        benchmark::DoNotOptimize(file.clone());
}
BENCHMARK(clone_plain)
    ->Name("further, messages and exceptions: copy of a resource/class with std::u16string");

void message_kvutil(benchmark::State& state)
{
    const File file{UString(PATH)};
    require_agreement(state,
                      UMessage::sprintf(catalogue, 1, file) ==
                          UString(u"BENCH0001E Unable to lock '/vobs/proj/src/lib/main.c'."));
    for (auto _ : state)
        benchmark::DoNotOptimize(UMessage::sprintf(catalogue, 1, file));
}
BENCHMARK(message_kvutil)->Name("further, messages and exceptions: message with a resource/kvutil");

void message_plain(benchmark::State& state)
{
    const PlainFile file(PATH);
    for (auto _ : state)
        benchmark::DoNotOptimize(u"BENCH0001E Unable to lock '" + file.clone()->text() + u"'.");
}
BENCHMARK(message_plain)
    ->Name("further, messages and exceptions: message with a resource/sum of std::u16string");

}  // namespace
