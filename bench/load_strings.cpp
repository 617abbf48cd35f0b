// As many static strings as there are well-known tags, as a program writes them that has no
// registry. The type is given by the build.

#include <string>

#define KVUTIL_WK_TAG(id, constant, abbreviation, name)                                            \
    extern "C" const TEXT constant;                                                                \
    const TEXT constant = PREFIX name;
#include <kvutil/xmltag_wk.def>
#undef KVUTIL_WK_TAG
