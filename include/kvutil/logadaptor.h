#ifndef KVUTIL_LOGADAPTOR_H
#define KVUTIL_LOGADAPTOR_H

#include <kvutil/export.h>
namespace Log {
class QmLogManager;
class QmLogger;
class KVUTIL_EXPORT LogAdaptor {
public:
    static void initialize(const char* a, const char* b, const char* c,
                           int n);  // null a or c is passed as ""
    static QmLogManager* get_log_manager();
    static QmLogManager* log_manager;
    static QmLogger* logger_stprpc;
    static QmLogger* logger_kvl;
    static QmLogger* logger_vdrpc;
    static QmLogger* logger_obrpc;
};
}  // namespace Log

#endif
