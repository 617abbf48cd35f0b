#include <kvutil/critsec.h>
#include <kvutil/logadaptor.h>
#include <qmlogger/qmlogger.h>

#include "critsec_lock_impl.h"

#include <atomic>
#include <string>

namespace Log {

constinit QmLogManager* LogAdaptor::log_manager = nullptr;
constinit QmLogger* LogAdaptor::logger_stprpc = nullptr;
constinit QmLogger* LogAdaptor::logger_kvl = nullptr;
constinit QmLogger* LogAdaptor::logger_vdrpc = nullptr;
constinit QmLogger* LogAdaptor::logger_obrpc = nullptr;

namespace {

// Held while the logging library runs, which has locks and fork handlers of its own.
constinit Kvl::CriticalSectionImpl::unattended_mutex_t g_initialization_mutex;

/// What a caller's null stands for.
std::string text_or(const char* text, const char* otherwise)
{
    return text != nullptr ? text : otherwise;
}

// Readers take no lock, and a program may read a member as the plain pointer that it is: what does
// not change is not written.
template <class T>
void publish(T*& handle, T* value)
{
    const std::atomic_ref<T*> published(handle);
    if (published.load(std::memory_order_relaxed) != value)
        published.store(value, std::memory_order_release);
}

/// All four are fetched before the first is published, so that a failure changes none.
void publish_loggers(QmLogManager& manager)
{
    QmLogger* const stprpc = manager.logger("StpRpc");
    QmLogger* const kvl = manager.logger("Kvl");
    QmLogger* const vdrpc = manager.logger("VdRpc");
    QmLogger* const obrpc = manager.logger("ObRpc");
    publish(LogAdaptor::logger_stprpc, stprpc);
    publish(LogAdaptor::logger_kvl, kvl);
    publish(LogAdaptor::logger_vdrpc, vdrpc);
    publish(LogAdaptor::logger_obrpc, obrpc);
}

}  // namespace

void LogAdaptor::initialize(const char* a, const char* b, const char* c, int n)
{
    const Kvl::CriticalSectionLock lock(g_initialization_mutex);
    const Kvl::CriticalSection section(lock);
    const std::string thresholds = text_or(c, "");
    const std::string directory = text_or(b, ".");
    const std::string program = text_or(a, "");
    QmLogManager* const manager =
        QmLogManager::initialize(program, directory, thresholds, n, std::string());
    if (manager != nullptr)
        publish_loggers(*manager);
    publish(log_manager, manager);
}

QmLogManager* LogAdaptor::get_log_manager() noexcept
{
    return std::atomic_ref<QmLogManager*>(log_manager).load(std::memory_order_acquire);
}

}  // namespace Log
