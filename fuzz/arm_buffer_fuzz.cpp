// Sub-buffers of any contents, added in any order: what a run-time finds in the buffer is what a
// plain model says, an operation is refused exactly when the model has no room, slot or name for
// it, and neither a refusal nor memory that runs out changes anything.
// The input is a letter for each operation, followed by a byte for each of its arguments.

#include <kvutil/arm.h>
#include <kvutil/stpexception.h>

#include "../tests/support/arm_record.h"
#include "allocation_fault.h"
#include "input.h"
#include "property.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

using namespace Kvl;

namespace {

/// Few enough that names come twice; of every length of UTF-8.
const std::string& text_of(std::uint8_t byte)
{
    static const std::array<std::string, 8> texts = {
        "", "a", "b", "c", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9D\x84\x9E", std::string(300, 'x')};
    return texts[byte % texts.size()];
}

UString ustr(const std::string& utf8)
{
    return UString(Utf8String(utf8));
}

arm_id id_of(std::uint8_t byte)
{
    arm_id id;
    std::memset(&id, byte, sizeof id);
    return id;
}

std::string quoted(const std::string& text)
{
    return '"' + text + '"';
}

std::string listed(const std::vector<std::string>& elements)
{
    std::string list;
    for (const std::string& element : elements)
        list += (list.empty() ? "" : ", ") + element;
    return elements.empty() ? "null" : "[" + list + "]";
}

/// What has been added, in the words of arm_record.
struct model_t {
    std::vector<std::string> properties, names;
    std::string uri;
    std::vector<std::string> context_names;
    std::map<std::string, std::string> context_values;  // quoted, by name
    std::vector<std::pair<std::string, bool>> metrics;  // and whether its value is the text
    std::string metric_text;
    std::vector<std::string> bindings;
    std::vector<std::string> lines;

    bool is_identity_full() const { return properties.size() + names.size() == 19; }

    std::string identity_words() const
    {
        std::vector<std::string> quoted_names;
        for (const std::string& name : names)
            quoted_names.push_back(quoted(name));
        return listed(properties) + " " + listed(quoted_names);
    }

    std::string context_words() const
    {
        std::vector<std::string> values;
        for (std::size_t i = 0; i < context_names.size(); ++i) {
            const auto begin = context_names.begin();
            const auto place = begin + static_cast<std::ptrdiff_t>(i);
            const auto value = context_values.find(context_names[i]);
            const bool is_first = std::find(begin, place, context_names[i]) == place;
            values.push_back(is_first && value != context_values.end() ? value->second : "null");
        }
        return listed(values);
    }

    std::string metric_words() const
    {
        std::vector<std::string> elements;
        for (const auto& [words, is_text] : metrics)
            elements.push_back(is_text ? words + quoted(metric_text) : words);
        return listed(elements);
    }
};

class run_t {
public:
    explicit run_t(bool is_global) : buffer_(is_global) {}

    void step(input_t& input)
    {
        const step_t next(input);
        fault_ = next.fault;
        switch (next.letter) {
        case 'p':
            add_property(text_of(input.byte()), text_of(input.byte()));
            break;
        case 'n':
            add_name(text_of(input.byte()));
            break;
        case 'u':
            set_uri(text_of(input.byte()));
            break;
        case 'c':
            begin_context();
            break;
        case 'v':
            add_context_value(text_of(input.byte()), text_of(input.byte()));
            break;
        case 'm':
            add_number(input);
            break;
        case 's':
            add_metric_text(text_of(input.byte()));
            break;
        case 'b':
            add_binding(input.byte(), input.byte());
            break;
        default:
            break;
        case 'I':
            add_identity();
            break;
        case 'C':
            add_context();
            break;
        case 'M':
            add_metrics();
            break;
        case 'B':
            add_bindings();
            break;
        case 'o':
            add_others(input);
            break;
        case 'x':
            buffer_.clear();
            model_.lines.clear();
            check();
            break;
        }
    }

    void check() const
    {
        std::string expected;
        for (const std::string& line : model_.lines)
            expected += line + "\n";
        require(arm_record::words(*buffer_.buffer4()) == expected);
        require(buffer_.count() == static_cast<int>(model_.lines.size()));
    }

private:
    /// @return  whether it was done; otherwise it was refused, as foretold, or there was no memory
    template <class Operation>
    bool done(bool is_refused, Operation operation) const
    {
        bool is_done = false;
        const bool is_answered = has_memory(fault_, [&] {
            try {
                operation();
                is_done = true;
            } catch (const STPException& e) {
                require(e.stp_reason_code() == 40 && typeid(e) == typeid(STPException));
            }
        });
        require(!is_answered || is_done != is_refused);
        return is_done;
    }

    template <class Operation>
    bool add_line(const std::string& line, Operation operation)
    {
        const bool is_added = done(model_.lines.size() == 4, operation);
        if (is_added)
            model_.lines.push_back(line);
        check();
        return is_added;
    }

    void add_property(const std::string& name, const std::string& value)
    {
        const UString name_text = ustr(name);
        const UString value_text = ustr(value);
        const unsigned short* const names = name_text.c_str();
        const unsigned short* const values = value_text.c_str();
        if (done(model_.is_identity_full(), [&] { identity_.add_identity_prop(names, values); }))
            model_.properties.push_back(quoted(name) + "=" + quoted(value));
    }

    void add_name(const std::string& name)
    {
        const UString text = ustr(name);
        if (done(model_.is_identity_full(), [&] { identity_.add_context_prop(text); }))
            model_.names.push_back(name);
    }

    void set_uri(const std::string& uri)
    {
        const UString text = ustr(uri);
        if (done(false, [&] { identity_.set_uri(text); }))
            model_.uri = uri;
    }

    void begin_context()
    {
        if (!done(false, [&] { context_ = ArmTransContextBuffer(identity_); }))
            return;
        model_.context_names = model_.names;
        model_.context_values.clear();
    }

    void add_context_value(const std::string& name, const std::string& value)
    {
        const auto& names = model_.context_names;
        const bool is_unknown = std::find(names.begin(), names.end(), name) == names.end();
        const UString name_text = ustr(name);
        const UString value_text = ustr(value);
        if (done(is_unknown, [&] { context_.add_ctx_prop(name_text, value_text); }))
            model_.context_values[name] = quoted(value);
    }

    void add_number(input_t& input)
    {
        const auto slot = static_cast<unsigned char>(input.byte() % 8);
        const auto format = static_cast<unsigned char>(input.byte() % 12);
        const int value = input.byte() - 128;
        const arm_metric_cntrdivr32 counter = {value, 1};
        const arm_metric_gaugedivr32 gauge = {value, 1};
        const bool is_refused = slot > 5;
        const bool is_done = done(is_refused, [&] {
            if (format == ARM_METRIC_FORMAT_CNTRDIVR32)
                metrics_.add_value(slot, -1, true, counter);
            else if (format == ARM_METRIC_FORMAT_GAUGEDIVR32)
                metrics_.add_value(slot, -1, true, gauge);
            else if (value % 2 == 0)
                metrics_.add_value(slot, format, -1, true, value);
            else
                metrics_.add_value(slot, format, -1, true, static_cast<long long>(value));
        });
        if (!is_done)
            return;
        std::string words = "slot " + std::to_string(slot) + " format " + std::to_string(format) +
                            " usage -1 valid 1 value ";
        const bool is_text = format == ARM_METRIC_FORMAT_STRING32;
        if (format == ARM_METRIC_FORMAT_CNTRDIVR32 || format == ARM_METRIC_FORMAT_GAUGEDIVR32)
            words += std::to_string(value) + "/1";
        else if (format == 0 || format == 9 || format == 11)
            words += "of no known format";
        else if (!is_text)
            words += std::to_string(value);
        model_.metrics.emplace_back(words, is_text);
    }

    void add_metric_text(const std::string& text)
    {
        const UString value = ustr(text);
        if (!done(false, [&] { metrics_.add_value(0, false, value); }))
            return;
        model_.metric_text = text;
        const std::pair<std::string, bool> metric("slot 6 format 10 usage 0 valid 0 value ", true);
        auto& metrics = model_.metrics;
        if (std::find(metrics.begin(), metrics.end(), metric) == metrics.end())
            metrics.push_back(metric);
    }

    void add_binding(std::uint8_t slot, std::uint8_t id)
    {
        if (!done(false, [&] { bindings_.add_binding(slot, id_of(id)); }))
            return;
        model_.bindings.push_back("slot " + std::to_string(slot) + " " +
                                  arm_record::words(id_of(id)));
    }

    void add_identity()
    {
        const std::string uri = model_.uri.empty() ? "null" : quoted(model_.uri);
        if (!add_line("104: " + model_.identity_words() + " uri " + uri,
                      [&] { buffer_.add_buffer(identity_); }))
            return;
        model_.properties.clear();
        model_.names.clear();
        model_.uri.clear();
    }

    void add_context()
    {
        if (add_line("105: " + model_.context_words() + " uri null",
                     [&] { buffer_.add_buffer(context_); }))
            model_.context_values.clear();
    }

    void add_metrics()
    {
        if (!add_line("5: " + model_.metric_words(), [&] { buffer_.add_buffer(metrics_); }))
            return;
        model_.metrics.clear();
        model_.metric_text.clear();
    }

    void add_bindings()
    {
        if (add_line("106: " + listed(model_.bindings), [&] { buffer_.add_buffer(bindings_); }))
            model_.bindings.clear();
    }

    void add_others(input_t& input)
    {
        const std::uint8_t kind = input.byte();
        const std::uint8_t byte = input.byte();
        const std::string text = text_of(byte);
        const UString detail = ustr(text);
        arm_id id = id_of(byte);
        const std::string id_words = std::to_string(byte % 2) + " " + arm_record::words(id);
        switch (kind % 5) {
        case 0:
            add_line("107: 106 flags 0", [&] { buffer_.add_buffer(); });
            break;
        case 1:
            add_line("4: " + std::to_string(byte - 128LL),
                     [&] { buffer_.add_buffer(byte - 128LL); });
            break;
        case 2:
            add_line("7: " + quoted(text), [&] { buffer_.add_buffer(detail); });
            break;
        case 3:
            add_line("3: " + quoted(text) + " id " + id_words,
                     [&] { buffer_.add_buffer(detail, byte % 2 == 1, id); });
            break;
        default:
            add_address(static_cast<short>(byte - 100), byte, id, id_words);
            break;
        }
    }

    void add_address(short length, std::uint8_t byte, arm_id& id, const std::string& id_words)
    {
        const std::vector<unsigned char> address(200, byte);
        const short bytes = std::max(length, short{0});
        const std::string words =
            bytes == 0 ? "null"
                       : arm_record::words(address.data(), static_cast<std::size_t>(bytes));
        add_line("6: format 7 length " + std::to_string(bytes) + " " + words + " id " + id_words,
                 [&] { buffer_.add_buffer(7, length, address.data(), byte % 2 == 1, id); });
    }

    model_t model_;
    unsigned long fault_ = 0;
    ArmTransIdentyBuffer identity_;
    ArmTransContextBuffer context_{ArmAppIdentyBuffer::ctx_index_map_t()};
    ArmMetricValuesBuffer metrics_;
    ArmMetricBindingsBuffer bindings_;
    ArmBuffer buffer_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    input_t input(data, size);
    run_t run(size % 2 == 0);
    run.check();
    while (!input.is_empty())
        run.step(input);
    run.check();
    return 0;
}
