#include "resource_of_text.h"
#include "rows.h"
#include "texts.h"

#include <kvutil/logadaptor.h>
#include <qmlogger/qmlogger.h>

namespace torture {

using Kvl::IllegalArgException;
using Kvl::RuntimeException;
using Kvl::StateException;
using Kvl::STPException;
using Kvl::UMessage;

namespace {

constexpr Kvl::stp_reason_code_t REASON = Kvl::STP_REASON_40;
const resource_of_text_t RESOURCE(LONG);

UMessage message()
{
    return UMessage(kvutil, 21, LONG, NARROW);
}

/// With causes of three classes, one of which has a cause of its own.
STPException tree()
{
    const STPException* const no_cause = nullptr;
    const UMessage text = message();
    STPException leaf(REASON, text, &RESOURCE, no_cause, 2);
    RuntimeException branch(REASON, text, nullptr, &leaf, 2);
    IllegalArgException second(text);
    StateException third(text);
    return STPException(REASON, text, &RESOURCE, {&branch, &second, nullptr, &third}, 2);
}

/// What a class adds to its base.
template <class E>
void add_class(rows_t& rows, const std::string& name)
{
    const std::string constructor = name + "::" + name;
    rows.add({constructor + "(UMessage const&)"}, message, [](const UMessage& m) { return E(m); });
    rows.add({constructor + "(UMessage&&)"}, message,
             [](UMessage& m) { return E(std::move(m)).causes().size(); })
        .needs_none();
    rows.add(
        {name + "::clone() const"}, [] { return E(message()); },
        [](const E& e) { return std::unique_ptr<STPException>(e.E::clone()); });
    rows.add({name + "::raise(UMessage const&) [inline]"}, message,
             [](const UMessage& m) { E::raise(m); });
}

void add_base(rows_t& rows)
{
    static const STPException source = tree();
    static const STPException* const one = &source;
    static const std::vector<STPException*> causes = source.causes();
    static const UMessage text = message();
    rows.add({"STPException::STPException(stp_reason_code_t, UMessage const&, Resource const*, "
              "STPException const*, int)"},
             [] { return STPException(REASON, text, &RESOURCE, one, 2); });
    rows.add({"STPException::STPException(stp_reason_code_t, UMessage const&, Resource const*, "
              "std::vector<STPException*> const&, int)"},
             [] { return STPException(REASON, text, &RESOURCE, causes, 2); });
    rows.add({"STPException::STPException(STPException const&)"},
             [] { return STPException(source); });
    rows.add({"STPException::STPException(STPException&&)",
              "STPException::operator=(STPException&&)"},
             tree,
             [](STPException& e) {
                 STPException moved(std::move(e));
                 e = std::move(moved);
             })
        .needs_none();
    rows.add(
        {"STPException::operator=(STPException const&)"},
        [] { return STPException(StateException(message())); },
        [](STPException& e) { e = source; });
    rows.add({"STPException::operator=(STPException const&)"}, tree,
             [](STPException& e) { e = *e.causes()[0]; });
    rows.add({"STPException::clone() const"},
             [] { return std::unique_ptr<STPException>(source.STPException::clone()); });
    rows.add({"STPException::stp_reason_code() const", "STPException::resource() const",
              "STPException::message() const", "STPException::causes() const"},
             tree,
             [](const STPException& e) {
                 return e.stp_reason_code() + e.message().index() + (e.resource() != nullptr) +
                        static_cast<int>(e.causes().size());
             })
        .needs_none();
}

/// A logger of the caller's, which keeps nothing.
class forgetful_logger final : public Log::QmLogger {
public:
    const std::string& name() const override { return name_; }
    int threshold() const override { return 0; }
    void set_threshold(int) override {}
    void info(const std::string&, int) override {}
    void warning(const std::string&, int) override {}
    void error(const std::string&, int) override {}

private:
    const std::string name_;
};

}  // namespace

/// Logs to it while it lives.
struct logged_t {
    logged_t()
    {
        Log::LogAdaptor::logger_kvl = &logger;
        STPException::g_logging_enabled = true;
    }
    ~logged_t()
    {
        Log::LogAdaptor::logger_kvl = nullptr;
        STPException::g_logging_enabled = false;
    }
    forgetful_logger logger;
};

static std::string words(const logged_t&)
{
    return "logging";
}

namespace {

void add_logged(rows_t& rows)
{
    static const UMessage text = message();
    static const STPException source = tree();
    const auto logged = [] { return std::make_unique<logged_t>(); };
    rows.add({"STPException::log(UMessage const&, int)"}, logged,
             [](auto&) { STPException::log(text, 2); });
    rows.add({"STPException::raise(stp_reason_code_t, UMessage const&, Resource const*, "
              "STPException const*, int) [inline]"},
             logged, [](auto&) { STPException::raise(REASON, text, &RESOURCE, &source, 1); });
    rows.add({"STPException::raise(stp_reason_code_t, UMessage const&, Resource const*, "
              "std::vector<STPException*> const&, int) [inline]"},
             logged,
             [](auto&) { STPException::raise(REASON, text, &RESOURCE, source.causes(), 0); });
    rows.add({"STPException::raise(STPException const&, int) [inline]"}, logged,
             [](auto&) { STPException::raise(source, 2); });
}

}  // namespace

rows_t stpexception_rows()
{
    rows_t rows("stpexception.h");
    add_base(rows);
    add_class<RuntimeException>(rows, "RuntimeException");
    add_class<IllegalArgException>(rows, "IllegalArgException");
    add_class<StateException>(rows, "StateException");
    add_logged(rows);
    return rows;
}

}  // namespace torture
