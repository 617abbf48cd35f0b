#ifndef KVUTIL_KVUTIL_MSG_H
#define KVUTIL_KVUTIL_MSG_H

#include <kvutil/export.h>
extern KVUTIL_EXPORT const char* kvutil[22];  // C++ variable at global scope: symbol is plain
                                              // `kvutil`; [22] so that sizeof works

#endif
