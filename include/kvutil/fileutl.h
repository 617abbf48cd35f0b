#ifndef KVUTIL_FILEUTL_H
#define KVUTIL_FILEUTL_H

#include <kvutil/critsec.h>
#include <kvutil/export.h>
#include <kvutil/ustring.h>

#include <map>

namespace Kvl {

/// Temporary files and private temporary directories: makes them under unused names, remembers them
/// with an id of the caller's choice, and deletes them one by one or by id.
///
/// Names are a prefix and a number of 0 to 9999, as in /tmp/TMP17. Deliberate: the number that was
/// given last is tried first by the next call, so a number comes back once its file is gone. The
/// number is shared by all prefixes.
///
/// Deliberate: objects are created under their name in UTF-8 and deleted under their name in the
/// platform's character set. Where the latter does not hold all characters of a name, the object
/// stays.
///
/// Nothing is deleted when the process ends. Where an operation throws std::bad_alloc, no new
/// object is left behind and the table is as it was.
/// @par Thread-safety
/// All operations may be called from any thread at once; no two calls are given the same new path.
/// In the child of a fork() the table is whole and the lock free. sys_tmpdir() reads the
/// environment until it succeeds once: meanwhile no other thread may change it.
/// @see POSIX.1-2008 open() with O_EXCL, mkdir(), remove(), umask()
class KVUTIL_EXPORT Fileutl {
public:
    /// What is known of a recorded object.
    struct tmp_file_info_t {
        bool in_dir;  ///< lives in a private directory, which is removed with it
        unsigned int
            id;  ///< the caller's group; 0 cannot be selected alone, see delete_tmp_files()
    };

    /// The directory for temporary files: the first that is writable of the environment's "TMP",
    /// its "TMPDIR", and "/tmp". Found once: later changes of the environment are ignored. A call
    /// that fails is not remembered.
    ///
    /// Deliberate: one trailing "/" is removed, so "TMP" set to "/" fails.
    /// @return  the directory without a trailing "/", decoded from the platform's character set
    /// @throws RuntimeException  PLXSV0669E: no candidate is writable (names "/tmp"), or nothing is
    ///                           left of the candidate once it is decoded and stripped
    /// @throws std::bad_alloc    no memory; nothing is remembered
    static UString sys_tmpdir();

    /// Creates an empty file or directory under an unused name in the temporary directory. It is
    /// not recorded. The process's umask applies.
    ///
    /// A call that the system interrupts is repeated. Deliberate: every other failure moves the
    /// number on, also one that ends the operation.
    /// @param prefix  what the name begins with; a "/" in it leads into a subdirectory, a U+0000
    ///                ends the name, see UString::utf8_str()
    /// @param is_dir  true for a directory of mode 0777, false for a file of mode 0600
    /// @return        the full path
    /// @throws STPException      reason 40, PLXSV0664E, logged as an error: "too many retries" when
    ///                           10,000 names were taken, otherwise the system's error text
    /// @throws RuntimeException  PLXSV0669E: as sys_tmpdir()
    /// @throws std::bad_alloc    no memory; no object is left behind
    static UString make_tmp_object(const UString& prefix, bool is_dir);

    /// Creates an empty file with the prefix "TMP" and records it.
    /// @param id  the group to record it in
    /// @return    the full path
    /// @throws STPException, RuntimeException  as make_tmp_object()
    /// @throws std::bad_alloc  no memory; no file is left behind, and the table is unchanged
    static UString create_tmp_file(unsigned int id);

    /// Creates a private directory with the prefix "DIR" and records a file in it. The file itself
    /// is left to the caller.
    /// @param name  the file's name in the directory. Deliberate: it is taken as it is. When it has
    ///              a "/" in it, deleting the file does not remove the private directory
    /// @param id    the group to record it in
    /// @return      the full path of the file
    /// @throws STPException, RuntimeException  as make_tmp_object()
    /// @throws std::bad_alloc  no memory; no directory is left behind, and the table is unchanged
    static UString create_tmp_file(const UString& name, unsigned int id);

    /// Moves a recorded object to another group, or records one that was made elsewhere.
    /// @param path  compared unit by unit with the recorded paths; need not exist
    /// @param id    the group
    /// @throws std::bad_alloc  no memory; the table is unchanged
    static void set_file_id(const UString& path, unsigned int id);

    /// Removes a file or an empty directory, with its private directory if it was recorded with
    /// one, and forgets it.
    ///
    /// Deliberate: the system's failures are ignored. What is missing, not empty or not ours to
    /// remove is forgotten all the same.
    /// @param path  need not be recorded
    /// @throws RuntimeException  PLXSV0669E: the path cannot be converted to the platform's
    ///                           character set, or, once the object is removed, that of its private
    ///                           directory cannot. It stays recorded
    /// @throws std::bad_alloc    no memory; nothing is removed and the table is unchanged
    static void delete_tmp_file(const UString& path);

    /// Deletes every recorded object of a group, as delete_tmp_file() does, in the table's order.
    /// @param id  the group; 0 means every recorded object
    /// @throws RuntimeException  PLXSV0669E: as delete_tmp_file(); that object and those after it
    ///                           stay recorded
    /// @throws std::bad_alloc    no memory; nothing is removed and the table is unchanged
    static void delete_tmp_files(unsigned int id);

    /// The recorded objects by their paths, in the order of UString::compare(). Usable until the
    /// process ends. For reading.
    static std::map<UString, tmp_file_info_t> g_tmp_table KVUTIL_GUARDED_BY(g_lock);

    /// Held by every operation that uses the table. A caller that holds it may call any of them.
    static const CriticalSectionLock g_lock;

    Fileutl() = delete;
};

}  // namespace Kvl

#endif
