#ifndef KVUTIL_TESTS_TORTURE_RESOURCE_OF_TEXT_H
#define KVUTIL_TESTS_TORTURE_RESOURCE_OF_TEXT_H

#include <kvutil/resource.h>

namespace torture {

/// A caller's resource; each copy allocates.
class resource_of_text_t final : public Kvl::Resource {
public:
    explicit resource_of_text_t(const Kvl::UString& text) : text_(text) {}
    resource_of_text_t* do_clone() const override { return new resource_of_text_t(*this); }
    Kvl::UString text() const override { return text_; }

private:
    const Kvl::UString text_;
};

}  // namespace torture

#endif
