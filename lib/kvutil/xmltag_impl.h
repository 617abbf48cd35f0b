#ifndef KVUTIL_XMLTAG_IMPL_H
#define KVUTIL_XMLTAG_IMPL_H

#include <kvutil/xmltag.h>

#include <cstddef>

namespace Kvl {
namespace XmlTagImpl {

/// The well-known tag with a name, or null; nothing is registered. Takes no lock, allocates
/// nothing. Never throws.
/// @param nsid  0 to 20
/// @param name  `length` units
const XmlTag* find_well_known(XmlTag::NsId nsid, const char16_t* name, std::size_t length) noexcept;

}  // namespace XmlTagImpl
}  // namespace Kvl

#endif
