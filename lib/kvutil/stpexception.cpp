#include <kvutil/stpexception.h>

#include <kvutil/logadaptor.h>
#include <qmlogger/qmlogger.h>

#include <type_traits>
#include <utility>

namespace Kvl {

class CopyInProgress;
class DeletionInProgress;

namespace {

constexpr stp_log_level_t LEVEL_INFO = 0;
constexpr stp_log_level_t LEVEL_WARNING = 1;
constexpr stp_log_level_t LEVEL_ERROR = 2;

bool is_logged(stp_log_level_t level)
{
    return level >= LEVEL_INFO && level <= LEVEL_ERROR;
}

void write(Log::QmLogger& logger, const std::string& utf8_text, stp_log_level_t level)
{
    constexpr int code = 0;
    if (level == LEVEL_INFO)
        logger.info(utf8_text, code);
    else if (level == LEVEL_WARNING)
        logger.warning(utf8_text, code);
    else
        logger.error(utf8_text, code);
}

// Part of every thread's static storage: reaching them must not allocate, since an exception is
// also made when there is no memory.
[[gnu::tls_model("initial-exec")]] constinit thread_local CopyInProgress* innermost_copy = nullptr;
[[gnu::tls_model("initial-exec")]] constinit thread_local DeletionInProgress* innermost_deletion =
    nullptr;

}  // namespace

/// One copy that a caller asked for, down to the last cause. The causes are cloned level by level
/// in a loop: a copy that clone() makes of the exception being cloned does not copy its own causes,
/// it is only noted here. Depth so costs neither stack nor memory.
///
/// Every other copy made meanwhile, by the body of some clone(), is complete when its constructor
/// returns.
class CopyInProgress {
public:
    typedef STPException::causes_t causes_t;

    CopyInProgress() noexcept : outer_(innermost_copy) { innermost_copy = this; }
    CopyInProgress(const CopyInProgress&) = delete;
    CopyInProgress& operator=(const CopyInProgress&) = delete;

    /// After a failure, what is still noted keeps the causes that it has: none.
    ~CopyInProgress()
    {
        while (noted_ != nullptr)
            forget(*noted_);
        innermost_copy = outer_;
    }

    /// Whether `source` are the causes of the exception that this thread clones just now.
    static bool is_cloning_owner_of(const causes_t& source)
    {
        return innermost_copy != nullptr && innermost_copy->cloned_causes_ == &source;
    }

    /// Copies `source` and everything below it to `copy`.
    void copy_tree(const STPException& copy, const causes_t& source)
    {
        clone_each(copy, source);
        complete_noted();
    }

    /// Copies one cause and everything below it to `copy`.
    void copy_tree(const STPException& copy, const STPException& cause)
    {
        copy.causes_.reserve(1);
        clone_one(copy, cause);
        complete_noted();
    }

    /// Notes that the causes of `copy` are still to be copied from `source`.
    static void note(const STPException& copy, const causes_t& source) noexcept
    {
        insert(copy, source, innermost_copy->noted_);
    }

    /// What was noted for `old` is from now on meant for `copy`.
    static void replace(const STPException& old, const STPException& copy) noexcept
    {
        insert(copy, *old.postponed_, *old.link_);
        forget(old);
    }

    static void forget(const STPException& copy) noexcept
    {
        *copy.link_ = copy.next_;
        if (copy.next_ != nullptr)
            copy.next_->link_ = copy.link_;
        copy.postponed_ = nullptr;
        copy.next_ = nullptr;
        copy.link_ = nullptr;
    }

private:
    static void insert(const STPException& copy, const causes_t& source,
                       const STPException*& place) noexcept
    {
        copy.postponed_ = &source;
        copy.next_ = place;
        copy.link_ = &place;
        if (place != nullptr)
            place->link_ = &copy.next_;
        place = &copy;
    }

    void complete_noted()
    {
        while (noted_ != nullptr) {
            const STPException& copy = *noted_;
            const causes_t& source = *copy.postponed_;
            forget(copy);
            clone_each(copy, source);
        }
    }

    void clone_each(const STPException& copy, const causes_t& source)
    {
        copy.causes_.reserve(source.size());
        for (const STPException* const cause : source)
            if (cause != nullptr)
                clone_one(copy, *cause);
    }

    /// There is room for the clone, so that it cannot be lost.
    void clone_one(const STPException& copy, const STPException& cause)
    {
        cloned_causes_ = &cause.causes_to_copy();
        STPException* const clone = cause.clone();
        cloned_causes_ = nullptr;
        if (clone != nullptr)
            copy.causes_.push_back(clone);
    }

    CopyInProgress* const outer_;
    const causes_t* cloned_causes_ = nullptr;
    const STPException* noted_ = nullptr;  // newest first
};

/// The deletion of everything below one exception, by a loop: the causes of the exception that is
/// being deleted are only added to the list. A deletion begun by the body of some destructor is
/// complete when that destructor returns.
class DeletionInProgress {
public:
    DeletionInProgress() noexcept : outer_(innermost_deletion) { innermost_deletion = this; }
    DeletionInProgress(const DeletionInProgress&) = delete;
    DeletionInProgress& operator=(const DeletionInProgress&) = delete;
    ~DeletionInProgress() { innermost_deletion = outer_; }

    /// The deletion that is just now deleting `e`, or null.
    static DeletionInProgress* of(const STPException& e)
    {
        return innermost_deletion != nullptr && innermost_deletion->deleted_ == &e
                   ? innermost_deletion
                   : nullptr;
    }

    /// Adds the causes, the first of them to be deleted next.
    void add(STPException::causes_t& causes) noexcept
    {
        for (; !causes.empty(); causes.pop_back())
            if (STPException* const cause = causes.back())
                add(*cause);
    }

    void run() noexcept
    {
        while (first_ != nullptr) {
            deleted_ = first_;
            first_ = deleted_->next_;
            delete deleted_;
        }
    }

private:
    void add(const STPException& e) noexcept
    {
        if (e.postponed_ != nullptr)
            CopyInProgress::forget(e);
        e.next_ = first_;
        first_ = &e;
    }

    DeletionInProgress* const outer_;
    const STPException* deleted_ = nullptr;
    const STPException* first_ = nullptr;
};

bool STPException::g_logging_enabled = false;

STPException::STPException(stp_reason_code_t reason, const UMessage& m, const Resource* r,
                           const std::vector<STPException*>& causes, stp_log_level_t)
    : STPException(reason, m)
{
    clone_resource(r);
    copy_causes(causes);
}

STPException::STPException(stp_reason_code_t reason, const UMessage& m, const Resource* r,
                           const STPException* cause, stp_log_level_t)
    : STPException(reason, m)
{
    clone_resource(r);
    if (cause != nullptr)
        CopyInProgress().copy_tree(*this, *cause);
}

STPException::STPException(const STPException& o) : STPException(o.reason_, o.message_)
{
    clone_resource(o.resource_.get());
    copy_causes(o.causes_to_copy());
}

STPException::STPException(STPException&& o) noexcept
    : reason_(o.reason_), resource_(std::move(o.resource_)), message_(std::move(o.message_)),
      causes_(std::move(o.causes_))
{
    if (o.postponed_ != nullptr)
        CopyInProgress::replace(o, *this);
}

// The constructors above delegate to the next two, so that a failure in their bodies runs the
// destructor: whatever has been cloned by then is deleted.

STPException::STPException(stp_reason_code_t reason, const UMessage& m)
    : reason_(reason), message_(m)
{
}

static_assert(std::is_nothrow_move_constructible_v<UMessage>, "moves of exceptions do not throw");

STPException::STPException(UMessage&& m) noexcept : reason_(STP_REASON_39), message_(std::move(m))
{
}

STPException& STPException::operator=(const STPException& o)
{
    if (this != &o)
        *this = STPException(o);
    return *this;
}

STPException& STPException::operator=(STPException&& o) noexcept
{
    if (this == &o)
        return *this;
    const STPException old(std::move(*this));  // may own `o`
    reason_ = o.reason_;
    resource_ = std::move(o.resource_);
    message_ = std::move(o.message_);
    causes_ = std::move(o.causes_);
    if (o.postponed_ != nullptr)
        CopyInProgress::replace(o, *this);
    return *this;
}

STPException::~STPException()
{
    if (postponed_ != nullptr)
        CopyInProgress::forget(*this);
    delete_causes();
}

STPException* STPException::clone() const
{
    return new STPException(*this);
}

Kvl::stp_reason_code_t STPException::stp_reason_code() const
{
    return reason_;
}

const Resource* STPException::resource() const
{
    return resource_.get();
}

const UMessage& STPException::message() const
{
    return message_;
}

const std::vector<STPException*>& STPException::causes() const
{
    if (postponed_ != nullptr)
        copy_postponed_causes();
    return causes_;
}

void STPException::log(const UMessage& m, stp_log_level_t level)
{
    if (!__atomic_load_n(&g_logging_enabled, __ATOMIC_RELAXED) || !is_logged(level))
        return;
    // The host program may be initialising the loggers just now.
    Log::QmLogger* const logger = __atomic_load_n(&Log::LogAdaptor::logger_kvl, __ATOMIC_ACQUIRE);
    if (logger != nullptr)
        write(*logger, m.message_string().utf8_str(), level);
}

void STPException::clone_resource(const Resource* r)
{
    if (r != nullptr)
        resource_.reset(r->clone());
}

void STPException::copy_causes(const causes_t& source)
{
    if (source.empty())
        return;
    if (CopyInProgress::is_cloning_owner_of(source))
        CopyInProgress::note(*this, source);
    else
        CopyInProgress().copy_tree(*this, source);
}

const STPException::causes_t& STPException::causes_to_copy() const
{
    return postponed_ != nullptr ? *postponed_ : causes_;
}

void STPException::copy_postponed_causes() const
{
    const STPException owner(reason_, UMessage());
    CopyInProgress().copy_tree(owner, *postponed_);
    CopyInProgress::forget(*this);
    causes_.swap(owner.causes_);
}

void STPException::delete_causes() noexcept
{
    if (causes_.empty())
        return;
    if (DeletionInProgress* const deletion = DeletionInProgress::of(*this)) {
        deletion->add(causes_);
        return;
    }
    DeletionInProgress deletion;
    deletion.add(causes_);
    deletion.run();
}

RuntimeException::RuntimeException(const UMessage& m) : RuntimeException(UMessage(m)) {}

RuntimeException::RuntimeException(UMessage&& m) noexcept : STPException(std::move(m)) {}

RuntimeException::~RuntimeException() = default;

RuntimeException* RuntimeException::clone() const
{
    return new RuntimeException(*this);
}

IllegalArgException::IllegalArgException(const UMessage& m) : IllegalArgException(UMessage(m)) {}

IllegalArgException::IllegalArgException(UMessage&& m) noexcept : STPException(std::move(m)) {}

IllegalArgException::~IllegalArgException() = default;

IllegalArgException* IllegalArgException::clone() const
{
    return new IllegalArgException(*this);
}

StateException::StateException(const UMessage& m) : StateException(UMessage(m)) {}

StateException::StateException(UMessage&& m) noexcept : STPException(std::move(m)) {}

StateException::~StateException() = default;

StateException* StateException::clone() const
{
    return new StateException(*this);
}

}  // namespace Kvl
