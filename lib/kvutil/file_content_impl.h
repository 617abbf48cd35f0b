#ifndef KVUTIL_FILE_CONTENT_IMPL_H
#define KVUTIL_FILE_CONTENT_IMPL_H

#include "file_sink_impl.h"

#include <functional>
#include <string>

namespace Kvl {

/// Puts the content into a sink; throws when it cannot. It may be asked twice.
typedef std::function<void(file_sink_t& sink)> write_content_t;

/// Gives a file new content: in one step where the path names a file that may be replaced by
/// another, or nothing yet; otherwise where it is. A new file has the mode 0600.
/// @throws RuntimeException PLXSV0665E: the file, or what is to replace it, cannot be opened
/// @throws RuntimeException PLXSV0668E: the content cannot be completed or put in place
void set_file_content(const std::string& path, const write_content_t& write);

}  // namespace Kvl

#endif
