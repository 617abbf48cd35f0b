#ifndef KVUTIL_CREDENTIALS_H
#define KVUTIL_CREDENTIALS_H

#include <kvutil/export.h>
#include <kvutil/ustring.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace Kvl {

/// One user or group: a type byte, and bytes ("bits") that the library does not interpret.
///
/// Nobody is the identity of length 0 and type 0. Its block may be there or not; both are equal.
///
/// Deliberate: lengths from 32768 to 65535 are stored in a signed `short`, so length() is negative
/// for them. Everything else, the text and the file record too, goes by the true length.
///
/// An operation that throws leaves the object as it was. A moved-from identity is nobody.
/// @par Thread-safety
/// Distinct identities may be used at once, and one may be read by several threads.
class KVUTIL_EXPORT Identity {
public:
    /// A byte of the block: the type first, then the bits.
    typedef unsigned char identity_t;

    /// What kind of identity it is. The library compares types and gives them no meaning; other
    /// values than this one are made by a cast.
    enum type_t : unsigned char {
        TYPE_0 = 0  ///< the type of nobody
    };

    /// Nobody, without a block. Never throws.
    Identity() noexcept;

    /// Takes a block over, without a copy. Never throws.
    /// @param length  the number of bits bytes; of 32768 and more, their value less 65536
    /// @param block   from `new identity_t[true length + 1]`, deleted with this object; null makes
    ///                nobody, whatever the length
    Identity(short length, identity_t* block) noexcept;

    /// Copies the bits. Without bits and of type 0 it is nobody and has no block.
    /// @param length  the number of bits bytes; a negative one counts as 0
    /// @param type    the type byte
    /// @param bits    at least `length` bytes, zeros included; null counts as length 0
    /// @throws std::bad_alloc  no memory for the block
    Identity(short length, type_t type, const char* bits);

    /// A deep copy.
    /// @param o  the identity to copy
    /// @throws std::bad_alloc  no memory for the block
    Identity(const Identity& o);
    Identity(Identity&& o) noexcept;

    /// A deep copy. The block is kept when it is large enough.
    /// @param o  the identity to copy; may be this one
    /// @return   this object
    /// @throws std::bad_alloc  no memory for the block
    Identity& operator=(const Identity& o);
    Identity& operator=(Identity&& o) noexcept;
    ~Identity();

    /// @return the number of bits bytes; of 32768 and more, their value less 65536. Never throws.
    short length() const noexcept { return length_; }

    /// @return the type byte; 0 without a block. Never throws.
    type_t type() const noexcept { return block_ == nullptr ? TYPE_0 : type_t(block_[0]); }

    /// @return the bits, valid until this object changes; null without a block. Never throws.
    const unsigned char* bits() const noexcept
    {
        return block_ == nullptr ? nullptr : block_.get() + 1;
    }

    /// @return whether length and type are 0. Never throws.
    bool is_nobody() const noexcept { return length_ == 0 && type() == TYPE_0; }

    /// Whether lengths, types and bits are equal. Never throws.
    /// @param o  the identity to compare with
    bool operator==(const Identity& o) const noexcept;
    /// @copydoc operator==(const Identity&)const
    bool operator!=(const Identity& o) const noexcept { return !(*this == o); }

    /// The text form `<length>:<hex>`: the true length in decimal, then two lower-case hexadecimal
    /// digits for the type and for each of the bits. Nobody is `0:00`.
    /// @return  what from_str() reads back
    /// @throws std::bad_alloc  no memory for the text
    UString str() const;

    /// Reads the text form.
    ///
    /// Deliberate: the length is read as `strtol` does in the C locale: white space and a sign may
    /// stand before it, anything behind it up to the colon is ignored, and no digits at all mean 0.
    /// Only lower-case hexadecimal digits are accepted.
    /// @param s  a length of up to 65535, a colon and 2 * (length + 1) digits
    /// @return   the identity; it has a block, also when it is nobody
    /// @throws IllegalArgException PLXSV0658E: there is no colon
    /// @throws IllegalArgException PLXSV0659E: the length is negative or above 65535
    /// @throws IllegalArgException PLXSV0660E: not exactly 2 * (length + 1) units follow the colon
    /// @throws IllegalArgException PLXSV0661E: one of them is not among 0 to 9 and a to f
    /// @throws std::bad_alloc  no memory for the block
    static Identity from_str(const UString& s);

private:
    std::unique_ptr<identity_t[]> block_;  // the type and the bits; may be larger after assignments
    short length_ = 0;                     // 0 without a block
};

/// Owns an open C stream and closes it when it is destroyed.
/// @par Thread-safety
/// One object may be used by one thread at a time.
class KVUTIL_EXPORT UtlFileIoPtr {
public:
    /// @param f  an open stream, or null. Never throws.
    explicit UtlFileIoPtr(std::FILE* f = nullptr) noexcept : file_(f) {}
    ~UtlFileIoPtr();
    UtlFileIoPtr(const UtlFileIoPtr&) = delete;
    UtlFileIoPtr& operator=(const UtlFileIoPtr&) = delete;

    /// @return the stream, still owned; null when there is none. Never throws.
    std::FILE* get() const noexcept { return file_; }

    /// @return the stream, which the caller must close now; null when there is none. Never throws.
    std::FILE* release() noexcept;

    /// Closes the stream now; afterwards there is none. Never throws.
    /// @return  what `fclose` returns, with its `errno`; 0 when there was none
    int close() noexcept;

private:
    std::FILE* file_;
};

/// Who the user of a process is, as the server sees it: the user, the groups and three texts whose
/// meaning is up to the programs that write them.
///
/// The file holds, all numbers little-endian and of 16 bits: the number of further groups; a record
/// (length, type byte, bits) of the user, of the primary group and of each further group; then,
/// optionally, three texts (length, UTF-8). Bytes behind the last record are ignored.
/// @par Thread-safety
/// Distinct objects may be used at once, and one may be read by several threads.
class KVUTIL_EXPORT Credentials {
public:
    /// Identities in order.
    typedef std::vector<Identity> group_list_t;

    UString text1;           ///< the first text of a file
    UString text2;           ///< the third text of a file, see read_from_file()
    UString text3;           ///< the second text of a file
    Identity user;           ///< the user
    Identity primary_group;  ///< the user's primary group
    group_list_t groups;     ///< the further groups; a file can hold 65535

    /// Nobody, in no group. Never throws.
    Credentials() noexcept;
    /// A deep copy.
    /// @param o  the credentials to copy
    /// @throws std::bad_alloc  no memory for the copy
    Credentials(const Credentials& o);
    Credentials(Credentials&& o) noexcept;
    /// A deep copy.
    /// @param o  the credentials to copy; may be this object
    /// @return   this object
    /// @throws std::bad_alloc  no memory for the copy; the object is then unchanged
    Credentials& operator=(const Credentials& o);
    Credentials& operator=(Credentials&& o) noexcept;
    ~Credentials();

    /// Writes identities and groups, never the texts, to a file.
    ///
    /// A new file, with the mode 0600, and one that is the user's own under one name only, get
    /// their content in one step: whatever fails, even if the process is killed, the path names
    /// the whole old file or the whole new one, and the owner, the group and the mode stay.
    /// Devices, FIFOs, files with several names or an access control list, other users' files and
    /// what a symbolic link names are written where they are, as is a file whose directory does not
    /// let it be replaced.
    ///
    /// Deliberate: of more than 65535 groups all are written, but their number modulo 65536, so
    /// the file cannot be read back.
    /// @param path  the file, in the character set of the file system; need not exist
    /// @throws RuntimeException PLXSV0665E: the file, or what is to replace it, cannot be opened
    /// @throws RuntimeException PLXSV0667E: it cannot be written
    /// @throws RuntimeException PLXSV0668E: the rest of it cannot be written, or be put in place
    /// @throws std::bad_alloc  no memory; the file is unchanged
    void write_to_file(const std::string& path) const;

    /// Replaces identities and groups, and the texts when asked for, by those of a file.
    ///
    /// Deliberate: the second text of the file is `text3` and the third is `text2`. A failure
    /// leaves what has been read so far: nothing has changed until the number of groups has been
    /// read, which empties `groups`; each record and text then takes effect once it is complete.
    /// @param path          the file, in the character set of the file system
    /// @param read_strings  whether to read the texts too, which write_to_file() never writes;
    ///                      otherwise they stay as they are
    /// @throws RuntimeException PLXSV0665E: the file cannot be opened
    /// @throws RuntimeException PLXSV0666E: it cannot be read; "Success" when it is too short
    /// @throws std::bad_alloc  no memory for what was to be read next
    void read_from_file(const std::string& path, bool read_strings);

    /// Reads one text, length and bytes, from where the stream stands.
    ///
    /// Deliberate: the text ends at its first zero byte, and is empty when it is malformed up to
    /// there.
    /// @param path  the file's name for messages
    /// @param file  the open file
    /// @return      the text
    /// @throws RuntimeException PLXSV0666E: it cannot be read; "Success" when it is too short
    /// @throws std::bad_alloc  no memory for the text
    static UString read_string(const std::string& path, UtlFileIoPtr& file);

    /// Whether an identity is the primary group or one of the further groups; the user does not
    /// count. Never throws.
    /// @param id  the identity to look for
    bool in_group_list(const Identity& id) const noexcept;
};

}  // namespace Kvl

#endif
