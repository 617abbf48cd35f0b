#ifndef KVUTIL_LOGADAPTOR_H
#define KVUTIL_LOGADAPTOR_H

#include <kvutil/export.h>

/// The logging library's names, and the adaptor that connects the library to it.
namespace Log {

class QmLogManager;
class QmLogger;

/// Opens the process's log on the server's request and holds the loggers through which the
/// library's components write. It has static state only.
///
/// The handles are null until initialize() has succeeded once: test before logging. A program may
/// put loggers of its own in their place.
/// @par Thread-safety
/// initialize() may be called by any thread at any time, also first by several at once. The
/// library itself reads and writes the handles atomically, and writes only those that change: as
/// long as initialize() finds the same manager and loggers again, any thread may read any member.
/// A program that reads one while another thread may change it does so atomically
/// (`__atomic_load_n`), or calls get_log_manager().
class KVUTIL_EXPORT LogAdaptor {
public:
    /// Initialises the log manager and fetches the loggers "StpRpc", "Kvl", "VdRpc" and "ObRpc",
    /// in this order. A further call does all of it again and replaces the handles.
    ///
    /// When the manager cannot be initialised, its handle becomes null, and the loggers stay what
    /// they were. When an exception passes, every handle stays what it was.
    /// @param a  passed to QmLogManager::initialize() as its first text, the program; null is ""
    /// @param b  passed as its second text, the directory; null is "."
    /// @param c  passed as its third text, the thresholds; null is ""
    /// @param n  passed as its integer, the size in MiB at which the log file is rotated
    /// @throws std::bad_alloc  no memory, and whatever the logging library throws
    static void initialize(const char* a, const char* b, const char* c, int n);

    /// @return  the manager that the last initialize() got; null before a successful one. Never
    ///          throws.
    static QmLogManager* get_log_manager() noexcept;

    static QmLogManager* log_manager;  ///< what get_log_manager() returns
    static QmLogger*
        logger_stprpc;              ///< "StpRpc", for protocol-level components outside the library
    static QmLogger* logger_kvl;    ///< "Kvl", the library's own; STPException::log() writes to it
    static QmLogger* logger_vdrpc;  ///< "VdRpc"
    static QmLogger* logger_obrpc;  ///< "ObRpc"
};

}  // namespace Log

#endif
