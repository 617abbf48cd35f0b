#ifndef KVUTIL_STPEXCEPTION_H
#define KVUTIL_STPEXCEPTION_H

#include <kvutil/export.h>
#include <kvutil/umessage.h>

#include <memory>
#include <utility>
#include <vector>

namespace Kvl {

/// What a failure means to the protocol. The library itself uses the two values named here; every
/// other value belongs to the server and is made by a cast: `stp_reason_code_t(7)`.
enum stp_reason_code_t : int {
    STP_REASON_39 = 39,  ///< every RuntimeException, IllegalArgException, StateException it throws
    STP_REASON_40 = 40   ///< a refused measurement buffer or temporary object
};

/// How severe a logged message is: 0 information, 1 warning, 2 error. Deliberate: any other value
/// is allowed and means "do not log".
typedef int stp_log_level_t;

/// A failure as the protocol reports it: a reason code, a message that is rendered late, the
/// resource that it concerns, and the exceptions that caused it. An object owns deep copies of its
/// resource and of its causes, and every copy of it owns its own.
///
/// Deliberate: a root class. A handler for std::exception does not catch it.
///
/// A tree of causes may be as deep as memory allows: it is copied and destroyed without recursion,
/// for derived classes too whose clone() is `return new Derived(*this)`.
/// @par Thread-safety
/// Distinct objects may be used at once, and one object may be read by several threads.
class KVUTIL_EXPORT STPException {
public:
    /// Either spelling works.
    typedef Kvl::stp_reason_code_t stp_reason_code_t;
    typedef Kvl::stp_log_level_t stp_log_level_t;

    /// Builds an exception that was caused by several others.
    /// @param reason  what the failure means to the protocol
    /// @param m       the message; copied
    /// @param r       the resource concerned, or null; cloned
    /// @param causes  cloned in order by their clone(); null elements are skipped
    /// @param level   accepted and not kept
    /// @throws std::bad_alloc  no memory; and whatever a clone() throws
    STPException(stp_reason_code_t reason, const UMessage& m, const Resource* r,
                 const std::vector<STPException*>& causes, stp_log_level_t level);

    /// Builds an exception that was caused by at most one other.
    /// @param reason  what the failure means to the protocol
    /// @param m       the message; copied
    /// @param r       the resource concerned, or null; cloned
    /// @param cause   cloned by its clone(), or null for none
    /// @param level   accepted and not kept
    /// @throws std::bad_alloc  no memory; and whatever a clone() throws
    STPException(stp_reason_code_t reason, const UMessage& m, const Resource* r,
                 const STPException* cause, stp_log_level_t level);

    /// Copies everything, causes and resource too.
    /// @param o  the exception to copy
    /// @throws std::bad_alloc  no memory; and whatever a clone() throws
    STPException(const STPException& o);

    /// Takes everything over. Never throws.
    /// @param o  left with its reason, the nil message, no resource and no causes
    STPException(STPException&& o) noexcept;

    /// Becomes a copy of `o`, which may be one of this exception's own causes. The classes of the
    /// two objects stay as they are. A failure leaves this exception as it was.
    /// @param o  the exception to copy
    /// @return   this exception
    /// @throws std::bad_alloc  no memory; and whatever a clone() throws
    STPException& operator=(const STPException& o);

    /// Takes everything over; `o` may be one of this exception's own causes. Never throws.
    /// @param o  left with its reason, the nil message, no resource and no causes
    /// @return   this exception
    STPException& operator=(STPException&& o) noexcept;

    /// Deletes the causes and the resource.
    virtual ~STPException();

    /// Copies this exception to the heap. A derived class overrides it to give its own class.
    /// @return the copy, which the caller deletes
    /// @throws std::bad_alloc  no memory
    virtual STPException* clone() const;

    /// The reason code. Never throws.
    /// @return the value given
    Kvl::stp_reason_code_t stp_reason_code() const;

    /// The resource that the failure concerns. Never throws.
    /// @return this exception's own copy, or null for none
    const Resource* resource() const;

    /// The message, not yet rendered. Never throws.
    /// @return this exception's own copy
    const UMessage& message() const;

    /// The exceptions that caused this one, in order. Never throws, except inside a clone() that
    /// looks at the copy it has just made: that copy's causes are then copied by this call.
    /// @return this exception's own copies
    const std::vector<STPException*>& causes() const;

    /// Whether log() writes; initially false. Set once at start, before other threads log.
    static bool g_logging_enabled;

    /// Writes a message to the logger "Kvl", rendered for this call only. Writes nothing when
    /// logging is disabled or not initialised, or when the level is not one of the three.
    /// @param m      the message
    /// @param level  0 information, 1 warning, 2 error
    /// @throws std::bad_alloc  no memory; and whatever the logger throws
    /// @see Log::LogAdaptor::initialize
    static void log(const UMessage& m, stp_log_level_t level);

    /// Logs the message, then throws an exception with several causes.
    /// @param reason  what the failure means to the protocol
    /// @param m       the message; copied
    /// @param r       the resource concerned, or null; cloned
    /// @param causes  cloned in order; null elements are skipped
    /// @param level   0, 1 or 2 to log, any other value not to
    /// @throws STPException  always, unless std::bad_alloc or what a clone() or the logger throws
    [[noreturn]] static void raise(stp_reason_code_t reason, const UMessage& m, const Resource* r,
                                   const std::vector<STPException*>& causes, stp_log_level_t level)
    {
        log(m, level);
        throw STPException(reason, m, r, causes, 2);
    }

    /// Logs the message, then throws an exception with at most one cause.
    /// @param reason  what the failure means to the protocol
    /// @param m       the message; copied
    /// @param r       the resource concerned, or null; cloned
    /// @param cause   cloned, or null for none
    /// @param level   0, 1 or 2 to log, any other value not to
    /// @throws STPException  always, unless std::bad_alloc or what a clone() or the logger throws
    [[noreturn]] static void raise(stp_reason_code_t reason, const UMessage& m, const Resource* r,
                                   const STPException* cause, stp_log_level_t level)
    {
        log(m, level);
        throw STPException(reason, m, r, cause, 2);
    }

    /// Logs the message of `e`, then throws a copy of `e`. Deliberate: what is thrown is an
    /// STPException itself, whatever the class of `e`.
    /// @param e      the exception to copy
    /// @param level  0, 1 or 2 to log, any other value not to
    /// @throws STPException  always, unless std::bad_alloc or what a clone() or the logger throws
    [[noreturn]] static void raise(const STPException& e, stp_log_level_t level)
    {
        log(e.message(), level);
        throw STPException(e);
    }

protected:
    /// What the library throws in fixed cases: reason 39, no resource, no cause.
    explicit STPException(UMessage&& m) noexcept;

private:
    friend class CopyInProgress;
    friend class DeletionInProgress;
    typedef std::vector<STPException*> causes_t;

    STPException(stp_reason_code_t reason, const UMessage& m);
    void clone_resource(const Resource* r);
    void copy_causes(const causes_t& source);
    const causes_t& causes_to_copy() const;
    void copy_postponed_causes() const;
    void delete_causes() noexcept;

    Kvl::stp_reason_code_t reason_;
    std::unique_ptr<Resource> resource_;
    UMessage message_;
    mutable causes_t causes_;  // causes() completes a copy in progress

    // The place in a copy or deletion in progress. All null at any other time.
    mutable const causes_t* postponed_ = nullptr;  // the causes that are still to be copied
    mutable const STPException* next_ = nullptr;   // in the list of either
    mutable const STPException** link_ = nullptr;  // what points here, in the list of the copy
};

/// A file or system operation failed.
class KVUTIL_EXPORT RuntimeException : public STPException {
public:
    /// Builds it with reason 39, no resource and no cause.
    /// @param m  the message; copied
    /// @throws std::bad_alloc  no memory
    explicit RuntimeException(const UMessage& m);

    /// The same without copying. Never throws.
    /// @param m  the message; left nil
    explicit RuntimeException(UMessage&& m) noexcept;

    /// With every part chosen by the caller.
    using STPException::STPException;

    RuntimeException(const RuntimeException& o) = default;
    RuntimeException(RuntimeException&& o) noexcept = default;
    RuntimeException& operator=(const RuntimeException& o) = default;
    RuntimeException& operator=(RuntimeException&& o) noexcept = default;
    ~RuntimeException() override;
    RuntimeException* clone() const override;

    using STPException::raise;

    /// Throws a RuntimeException with reason 39, no resource and no cause. Never logs.
    /// @param m  the message; copied
    /// @throws RuntimeException  always, unless std::bad_alloc
    [[noreturn]] static void raise(const UMessage& m) { throw RuntimeException(m); }

    /// The same without copying.
    /// @param m  the message; left nil
    /// @throws RuntimeException  always
    [[noreturn]] static void raise(UMessage&& m) { throw RuntimeException(std::move(m)); }
};

/// What a caller gave is malformed.
class KVUTIL_EXPORT IllegalArgException : public STPException {
public:
    /// Builds it with reason 39, no resource and no cause.
    /// @param m  the message; copied
    /// @throws std::bad_alloc  no memory
    explicit IllegalArgException(const UMessage& m);

    /// The same without copying. Never throws.
    /// @param m  the message; left nil
    explicit IllegalArgException(UMessage&& m) noexcept;

    /// With every part chosen by the caller.
    using STPException::STPException;

    IllegalArgException(const IllegalArgException& o) = default;
    IllegalArgException(IllegalArgException&& o) noexcept = default;
    IllegalArgException& operator=(const IllegalArgException& o) = default;
    IllegalArgException& operator=(IllegalArgException&& o) noexcept = default;
    ~IllegalArgException() override;
    IllegalArgException* clone() const override;

    using STPException::raise;

    /// Throws an IllegalArgException with reason 39, no resource and no cause. Never logs.
    /// @param m  the message; copied
    /// @throws IllegalArgException  always, unless std::bad_alloc
    [[noreturn]] static void raise(const UMessage& m) { throw IllegalArgException(m); }

    /// The same without copying.
    /// @param m  the message; left nil
    /// @throws IllegalArgException  always
    [[noreturn]] static void raise(UMessage&& m) { throw IllegalArgException(std::move(m)); }
};

/// A rule that must always hold is broken, or the text of a selector is rejected.
class KVUTIL_EXPORT StateException : public STPException {
public:
    /// Builds it with reason 39, no resource and no cause.
    /// @param m  the message; copied
    /// @throws std::bad_alloc  no memory
    explicit StateException(const UMessage& m);

    /// The same without copying. Never throws.
    /// @param m  the message; left nil
    explicit StateException(UMessage&& m) noexcept;

    /// With every part chosen by the caller.
    using STPException::STPException;

    StateException(const StateException& o) = default;
    StateException(StateException&& o) noexcept = default;
    StateException& operator=(const StateException& o) = default;
    StateException& operator=(StateException&& o) noexcept = default;
    ~StateException() override;
    StateException* clone() const override;

    using STPException::raise;

    /// Throws a StateException with reason 39, no resource and no cause. Never logs.
    /// @param m  the message; copied
    /// @throws StateException  always, unless std::bad_alloc
    [[noreturn]] static void raise(const UMessage& m) { throw StateException(m); }

    /// The same without copying.
    /// @param m  the message; left nil
    /// @throws StateException  always
    [[noreturn]] static void raise(UMessage&& m) { throw StateException(std::move(m)); }
};

}  // namespace Kvl

#endif
