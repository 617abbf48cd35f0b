#ifndef KVUTIL_TESTS_TORTURE_ROWS_H
#define KVUTIL_TESTS_TORTURE_ROWS_H

#include "torture.h"

namespace torture {

// The rows of each public header, in the file of the same name.
rows_t ustring_rows();
rows_t umessage_rows();
rows_t pname_rows();
rows_t stpexception_rows();
rows_t exception_rows();
rows_t logging_rows();
rows_t xmltag_rows();
rows_t selector_rows();
rows_t oid_rows();
rows_t credentials_rows();
rows_t critsec_rows();
rows_t fileutl_rows();
rows_t davtime_rows();
rows_t arm_buffer_rows();
rows_t arm_rows();

}  // namespace torture

#endif
