#ifndef KVUTIL_STPEXCEPTION_H
#define KVUTIL_STPEXCEPTION_H

#include <kvutil/export.h>
#include <kvutil/umessage.h>
namespace Kvl {
enum stp_reason_code_t : int { STP_REASON_39 = 39, STP_REASON_40 = 40 };
typedef int stp_log_level_t;        // 0, 1, 2 are logged
class KVUTIL_EXPORT STPException {  // a root class: not a std::exception
public:
    typedef Kvl::stp_reason_code_t stp_reason_code_t;
    typedef Kvl::stp_log_level_t stp_log_level_t;
    STPException(stp_reason_code_t reason, const UMessage& m, const Resource* r,
                 const std::vector<STPException*>& causes, stp_log_level_t level);
    STPException(stp_reason_code_t reason, const UMessage& m, const Resource* r,
                 const STPException* cause, stp_log_level_t level);
    STPException(const STPException& o);
    STPException& operator=(const STPException& o);
    virtual ~STPException();              // 1st
    virtual STPException* clone() const;  // 2nd
    Kvl::stp_reason_code_t stp_reason_code() const;
    const Resource* resource() const;
    const UMessage& message() const;
    const std::vector<STPException*>& causes() const;
    static bool g_logging_enabled;  // initially false
    static void log(const UMessage& m, stp_log_level_t level);
    [[noreturn]] static void raise(stp_reason_code_t reason, const UMessage& m, const Resource* r,
                                   const std::vector<STPException*>& causes, stp_log_level_t level);
    [[noreturn]] static void raise(stp_reason_code_t reason, const UMessage& m, const Resource* r,
                                   const STPException* cause, stp_log_level_t level);
    [[noreturn]] static void raise(const STPException& e, stp_log_level_t level);

private:
    Kvl::stp_reason_code_t reason_;
    Resource* resource_;
    UMessage message_;
    std::vector<STPException*> causes_;
};
class KVUTIL_EXPORT RuntimeException : public STPException {
public:
    explicit RuntimeException(const UMessage& m);  // reason 39, no resource, no cause, level 2
    RuntimeException(stp_reason_code_t reason, const UMessage& m, const Resource* r,
                     const std::vector<STPException*>& causes, stp_log_level_t level);
    RuntimeException(stp_reason_code_t reason, const UMessage& m, const Resource* r,
                     const STPException* cause, stp_log_level_t level);
    RuntimeException(const RuntimeException& o) = default;
    RuntimeException& operator=(const RuntimeException& o) = default;
    ~RuntimeException() override;
    RuntimeException* clone() const override;
    using STPException::raise;
    [[noreturn]] static void raise(const UMessage& m);
};
class KVUTIL_EXPORT IllegalArgException : public STPException {
public:
    explicit IllegalArgException(const UMessage& m);
    IllegalArgException(stp_reason_code_t reason, const UMessage& m, const Resource* r,
                        const std::vector<STPException*>& causes, stp_log_level_t level);
    IllegalArgException(stp_reason_code_t reason, const UMessage& m, const Resource* r,
                        const STPException* cause, stp_log_level_t level);
    IllegalArgException(const IllegalArgException& o) = default;
    IllegalArgException& operator=(const IllegalArgException& o) = default;
    ~IllegalArgException() override;
    IllegalArgException* clone() const override;
    using STPException::raise;
    [[noreturn]] static void raise(const UMessage& m);
};
class KVUTIL_EXPORT StateException : public STPException {
public:
    explicit StateException(const UMessage& m);
    StateException(stp_reason_code_t reason, const UMessage& m, const Resource* r,
                   const std::vector<STPException*>& causes, stp_log_level_t level);
    StateException(stp_reason_code_t reason, const UMessage& m, const Resource* r,
                   const STPException* cause, stp_log_level_t level);
    StateException(const StateException& o) = default;
    StateException& operator=(const StateException& o) = default;
    ~StateException() override;
    StateException* clone() const override;
    using STPException::raise;
    [[noreturn]] static void raise(const UMessage& m);  // never logs
};
}  // namespace Kvl

#endif
