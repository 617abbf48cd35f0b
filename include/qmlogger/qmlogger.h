#ifndef QMLOGGER_QMLOGGER_H
#define QMLOGGER_QMLOGGER_H

/// @file
/// The interface of the logging library: its message formatter, its loggers and their manager.
/// What the implementation in this tree writes is described in docs/log-format.md. A program may
/// put another libqmlogger.so in its place that keeps this interface.

#include <qmlogger/export.h>

#include <string>

/// One argument of a message: 16 bytes on x86-64. It carries no kind; the conversion that reads it
/// decides which member that is.
union cxPrintfArgVal {
    long long i;    ///< read by d i u x X o c, and by `*`
    long double d;  ///< read by e E f F g G a A
    const void* p;  ///< read by s: a zero-terminated text
};

namespace Log {

using ::cxPrintfArgVal;

/// The message formatter: finds the text of a numbered message and fills its conversions.
/// @par Thread-safety
/// Any thread may call both forms at any time, also before a log is opened and during exit.
class QMLOGGER_EXPORT QmMsg {
public:
    /// The format text of one message of a catalogue, translated when a translation is installed.
    ///
    /// A catalogue is an array whose first entry is a header, "<name> <count>": a name without
    /// blanks, one blank, the number of messages in decimal digits, at most 9,999. The texts
    /// follow at the indexes 1 to count.
    ///
    /// Translations are message catalogues as the C library's catopen() finds them: the
    /// catalogue's name, the locale that the program has set for LC_MESSAGES and the environment
    /// variable NLSPATH; set 1, message number = index. A name is looked for once, when the first
    /// of its messages is asked for, and what was found then stays. Without a translation the
    /// array's own text is the result. A translation is returned as it stands: its conversions
    /// are for the caller to compare with the arguments.
    /// @param catalogue  the array; null is allowed
    /// @param index      1 to count
    /// @param extra      accepted for the sake of other implementations, not used by this one
    /// @return           the text, owned by the array or by this library for the rest of the
    ///                   process; null when there is none: no catalogue, no header, a header of
    ///                   another form, an index outside 1 to count
    /// @throws std::bad_alloc  no memory
    /// @see POSIX.1-2008, catopen(), catgets()
    static const char* format(const char** catalogue, int index, const char* extra);

    /// Fills the conversions of a format, as printf does, from an array of records.
    ///
    /// A conversion is, in this order: `%`; optionally `n$`, n from 1 to 4096; flags out of
    /// `- + blank # 0 '`; a width, in digits, `*` or `*n$`; `.` and a precision, in digits (none
    /// is 0), `*` or `*n$`; one of the lengths `hh h l ll j z t q L`; one of the letters below.
    /// | letter | prints |
    /// |---|---|
    /// | `d i` | the whole 64-bit `i` |
    /// | `u x X o` | the low 32 bits of `i` when it lies in [-2^31, -1], else all 64 unsigned |
    /// | `c` | the low byte of `i`; a zero byte ends the text for whoever reads it |
    /// | `e E f F g G a A` | the `long double` `d` |
    /// | `s` | the text at `p`, "(null)" when it is null |
    ///
    /// `hh` and `h` narrow `i` to 8 and 16 bits; the other lengths change nothing. `'` is accepted
    /// and does nothing. Widths and precisions above 65,535 count as 65,535; a negative `*` width
    /// is the flag `-` and the width, a negative `*` precision is none. The precision of `s` counts
    /// bytes, and the cut never leaves part of a UTF-8 character.
    ///
    /// `%%` prints `%`. A `%` that begins no conversion of this form (`%n` and `%p` begin none) is
    /// printed as it stands, reads no record, and reading goes on with the character behind it.
    ///
    /// Every width, precision or conversion without `n$` reads the next record, the first one the
    /// first record; one with `n$` reads record n and does not count. How many records there are
    /// is not known here: the caller provides one for each that the format reads.
    ///
    /// The program's locale changes the decimal point of floating conversions, nothing else.
    /// @param format  zero-terminated; null is allowed. It and the texts of the records may be the
    ///                result of this thread's previous call
    /// @param args    the records; null stands for records that are all zero
    /// @return        the text, valid until this thread's next call or its end; null for a null
    ///                `format`
    /// @throws std::bad_alloc  no memory for the text; it is never shortened
    /// @see ISO/IEC 9899:1999 7.19.6.1; POSIX.1-2008, fprintf(), for `n$`
    static const char* format(const char* format, cxPrintfArgVal* args);
};

/// A named source of log lines with a threshold of its own. Levels are 0 (information),
/// 1 (warning) and 2 (error); a line is written when its level is not below the threshold.
///
/// Virtual operations stand in the order that callers are compiled against.
/// @par Thread-safety
/// The loggers of a QmLogManager may be used from any thread at any time.
class QMLOGGER_EXPORT QmLogger {
public:
    virtual ~QmLogger();

    /// @return  the name under which the manager knows the logger
    virtual const std::string& name() const = 0;

    /// @return  the lowest level that is written
    virtual int threshold() const = 0;

    /// @param level  the lowest level that is written from now on: 0 and below write everything,
    ///               3 and above nothing
    virtual void set_threshold(int level) = 0;

    /// Writes a line of level 0. Loggers of this library never throw.
    /// @param utf8_text  the text; it may hold any bytes
    /// @param code       a number for the reader of the line; 0 for none
    virtual void info(const std::string& utf8_text, int code) = 0;

    /// @return  whether info() writes anything; here, whether threshold() is at most 0
    virtual bool info_enabled() const;

    /// Writes a line of level 1. Loggers of this library never throw.
    /// @param utf8_text  the text; it may hold any bytes
    /// @param code       a number for the reader of the line; 0 for none
    virtual void warning(const std::string& utf8_text, int code) = 0;

    /// @return  whether warning() writes anything; here, whether threshold() is at most 1
    virtual bool warning_enabled() const;

    /// Writes a line of level 2. Loggers of this library never throw.
    /// @param utf8_text  the text; it may hold any bytes
    /// @param code       a number for the reader of the line; 0 for none
    virtual void error(const std::string& utf8_text, int code) = 0;

protected:
    QmLogger() = default;
    QmLogger(const QmLogger&) = default;
    QmLogger& operator=(const QmLogger&) = default;
};

/// The process's log: where the lines go, and its loggers.
///
/// Virtual operations stand in the order that callers are compiled against.
/// @par Thread-safety
/// Every operation may be called from any thread at any time.
class QMLOGGER_EXPORT QmLogManager {
public:
    /// Opens the log, or opens it anew: there is one log in a process, and a later call moves all
    /// its loggers to the new file with the new thresholds. Failing, it leaves the log as it was.
    /// @param program        names the file, `<directory>/<program>.log`; "kvutil" when empty
    /// @param directory      exists and can be written to
    /// @param thresholds     "" for everything; a level for all loggers, "error"; or one for each,
    ///                       "Kvl=info,*=error"
    /// @param max_megabytes  the size in MiB at which a new file is begun and five old ones are
    ///                       kept; 0 or less for never
    /// @param reserved       not used
    /// @return               the manager, owned by the library; null when the file cannot be opened
    /// @throws std::bad_alloc  no memory; the log is as it was
    static QmLogManager* initialize(const std::string& program, const std::string& directory,
                                    const std::string& thresholds, int max_megabytes,
                                    const std::string& reserved);

    virtual ~QmLogManager();

    /// Hands everything written so far to the operating system. Never throws.
    virtual void flush() = 0;

    /// @param name  any text
    /// @return      the logger of that name, created on first use; it lives as long as the process
    /// @throws std::bad_alloc  no memory
    virtual QmLogger* logger(const std::string& name) = 0;

protected:
    QmLogManager() = default;
    QmLogManager(const QmLogManager&) = default;
    QmLogManager& operator=(const QmLogManager&) = default;
};

}  // namespace Log

#endif
