#ifndef KVUTIL_KVUTIL_H
#define KVUTIL_KVUTIL_H

/// @file
/// The whole public interface, every header of the library.

#include <kvutil/arm.h>
#include <kvutil/arm4.h>
#include <kvutil/credentials.h>
#include <kvutil/critsec.h>
#include <kvutil/critsec_lock.h>
#include <kvutil/davtime.h>
#include <kvutil/exception.h>
#include <kvutil/export.h>
#include <kvutil/fileutl.h>
#include <kvutil/identity.h>
#include <kvutil/kvutil_msg.h>
#include <kvutil/logadaptor.h>
#include <kvutil/oid.h>
#include <kvutil/pname.h>
#include <kvutil/resource.h>
#include <kvutil/selector.h>
#include <kvutil/stpexception.h>
#include <kvutil/sysutl_ieee_hostid.h>
#include <kvutil/tbs_uuid_gen.h>
#include <kvutil/tbs_version_id.h>
#include <kvutil/umessage.h>
#include <kvutil/ustring.h>
#include <kvutil/utf8string.h>
#include <kvutil/uuid.h>
#include <kvutil/xmltag.h>

#endif
