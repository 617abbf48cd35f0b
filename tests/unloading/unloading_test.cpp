#include <gtest/gtest.h>

#include <dlfcn.h>
#include <pthread.h>

#include <future>
#include <thread>

namespace {

/// A library that is open as long as this lives.
class opened_t {
public:
    explicit opened_t(const char* path) : handle_(dlopen(path, RTLD_NOW | RTLD_LOCAL))
    {
        EXPECT_NE(handle_, nullptr) << dlerror();
    }
    ~opened_t() { EXPECT_EQ(dlclose(handle_), 0); }
    opened_t(const opened_t&) = delete;
    opened_t& operator=(const opened_t&) = delete;

    int call(const char* name) const { return reinterpret_cast<int (*)()>(dlsym(handle_, name))(); }

private:
    void* const handle_;
};

bool is_loaded(const char* path)
{
    return dlopen(path, RTLD_NOW | RTLD_NOLOAD) != nullptr;
}

TEST(Unloading, KeepsTheLibraryWhenItIsClosed)
{
    EXPECT_FALSE(is_loaded(KVUTIL_LIBRARY));
    for (int i = 0; i < 100; ++i)
        const opened_t library(KVUTIL_LIBRARY);
    EXPECT_TRUE(is_loaded(KVUTIL_LIBRARY));
}

// Each round opens a client anew, measures in a thread, closes the client, and only then lets the
// thread end, which frees its stack.
TEST(Unloading, LetsThreadsThatHaveMeasuredEndLater)
{
    const opened_t runtime(ARM4_RUNTIME);
    for (int i = 0; i < 100; ++i) {
        std::promise<void> has_measured;
        std::promise<void> is_closed;
        std::thread thread;
        {
            const opened_t client(MEASURING_CLIENT);
            ASSERT_EQ(client.call("begin_measurement"), 0);
            thread = std::thread([&] {
                EXPECT_EQ(client.call("measure"), 0);
                has_measured.set_value();
                is_closed.get_future().wait();
            });
            has_measured.get_future().wait();
        }
        is_closed.set_value();
        thread.join();
    }
}

TEST(Unloading, LetsTheThreadThatClosesItMeasureBefore)
{
    const opened_t runtime(ARM4_RUNTIME);
    std::thread([] {
        const opened_t client(MEASURING_CLIENT);
        ASSERT_EQ(client.call("begin_measurement"), 0);
        EXPECT_EQ(client.call("measure"), 0);
    }).join();
}

}  // namespace
