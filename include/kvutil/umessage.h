#ifndef KVUTIL_UMESSAGE_H
#define KVUTIL_UMESSAGE_H

#include <cstdint>
#include <kvutil/export.h>
#include <kvutil/kvutil_msg.h>
#include <kvutil/resource.h>
#include <kvutil/ustring.h>
union cxPrintfArgVal;
namespace Kvl {
using ::cxPrintfArgVal;
class KVUTIL_EXPORT UMessage {
public:
    class KVUTIL_EXPORT Arg {
    public:
        union arg_union_t {
            char c;
            std::int32_t i32;
            std::int64_t i64;
            double d;
            char* cstr;
            std::string* str;
            Resource* res;
            constexpr arg_union_t() noexcept : i64(0) {}
            explicit arg_union_t(const char* s);
            explicit arg_union_t(const std::string& s);
            explicit arg_union_t(const UString& s);
            explicit arg_union_t(const unsigned short* s);
            explicit arg_union_t(const char16_t* s);
            explicit arg_union_t(const Resource& r);
        };
        constexpr Arg() noexcept : kind_(0), value_() {}  // kind 0
        Arg(char c);                                      // kind 1
        Arg(int i);   // kind 2; bool, short, signed/unsigned char, unsigned short, char16_t,
                      // wchar_t, unscoped enums arrive here
        Arg(long i);  // kind 3 when it fits 32 bits, else kind 4
        Arg(unsigned int i);
        Arg(unsigned long i);
        Arg(long long i);
        Arg(unsigned long long i);  // kind 4
        Arg(double d);
        Arg(long double d);         // kind 5 (float promotes)
        Arg(const char* s);         // kind 6; null is stored as ""
        Arg(const std::string& s);  // kind 7 (Utf8String too)
        Arg(const UString& s);
        Arg(const unsigned short* s);
        Arg(const char16_t* s);  // kind 8
        Arg(const Resource& r);  // kind 9
        Arg(const Arg& o);
        Arg& operator=(const Arg& o);
        virtual ~Arg();  // the one virtual operation
        int kind() const;
        void get_print_val(cxPrintfArgVal& v) const;
        static const Arg nil;  // constant-initialised

    private:
        int kind_;
        arg_union_t value_;
    };
    typedef Arg::arg_union_t arg_union_t;
    class KVUTIL_EXPORT collection_t {
    public:
        typedef UMessage value_type;
        typedef std::vector<UMessage>::iterator iterator;
        typedef std::vector<UMessage>::const_iterator const_iterator;
        collection_t();
        collection_t(const collection_t& o);
        collection_t& operator=(const collection_t& o);
        ~collection_t();
        iterator begin();
        iterator end();
        const_iterator begin() const;
        const_iterator end() const;
        unsigned int size() const;
        bool empty() const;
        UMessage& operator[](unsigned int i);
        const UMessage& operator[](unsigned int i) const;
        void clear();
        void reserve(unsigned int n);
        void push_back(const UMessage& m);
        collection_t& operator+=(const collection_t& o);

    private:
        std::vector<UMessage> messages_;
    };
    UMessage();
    UMessage(const char** catalogue, int index, const Arg& a1 = Arg::nil, const Arg& a2 = Arg::nil);
    UMessage(const char** catalogue, int index, const Arg& a1, const Arg& a2, const Arg& a3,
             const Arg& a4 = Arg::nil, const Arg& a5 = Arg::nil, const Arg& a6 = Arg::nil,
             const Arg& a7 = Arg::nil, const Arg& a8 = Arg::nil, const Arg& a9 = Arg::nil,
             const Arg& a10 = Arg::nil);
    UMessage(const UMessage& o);
    UMessage& operator=(const UMessage& o);
    ~UMessage();
    static const UMessage nil;
    bool is_nil() const;
    const char** catalogue() const;
    int index() const;
    const std::vector<Arg>& arguments() const;
    UString message_string(const char* extra = nullptr) const;
    static UString sprintf(const char* format, const std::vector<const Arg*>& args);
    static UString sprintf(const char* format, const Arg& a1);
    static UString sprintf(const char* format, const Arg& a1, const Arg& a2,
                           const Arg& a3 = Arg::nil, const Arg& a4 = Arg::nil,
                           const Arg& a5 = Arg::nil, const Arg& a6 = Arg::nil,
                           const Arg& a7 = Arg::nil, const Arg& a8 = Arg::nil,
                           const Arg& a9 = Arg::nil, const Arg& a10 = Arg::nil);
    static UString sprintf(const UString& format, const std::vector<const Arg*>& args);
    static UString sprintf(const UString& format, const Arg& a1);
    static UString sprintf(const UString& format, const Arg& a1, const Arg& a2,
                           const Arg& a3 = Arg::nil, const Arg& a4 = Arg::nil,
                           const Arg& a5 = Arg::nil, const Arg& a6 = Arg::nil,
                           const Arg& a7 = Arg::nil, const Arg& a8 = Arg::nil,
                           const Arg& a9 = Arg::nil, const Arg& a10 = Arg::nil);
    static UString sprintf(const char** catalogue, int index, const std::vector<const Arg*>& args,
                           const char* extra = nullptr);
    static UString sprintf(const char** catalogue, int index, const Arg& a1);
    static UString sprintf(const char** catalogue, int index, const Arg& a1, const Arg& a2,
                           const Arg& a3 = Arg::nil, const Arg& a4 = Arg::nil,
                           const Arg& a5 = Arg::nil, const Arg& a6 = Arg::nil,
                           const Arg& a7 = Arg::nil, const Arg& a8 = Arg::nil,
                           const Arg& a9 = Arg::nil, const Arg& a10 = Arg::nil);

private:
    const char** catalogue_;
    int index_;
    std::vector<Arg> arguments_;
};
}  // namespace Kvl

#endif
