#ifndef KVUTIL_TESTS_FAKE_ARM4_H
#define KVUTIL_TESTS_FAKE_ARM4_H

/// @file
/// A run-time library of our own for ARM 4.0, with the name of the real one, libarm4.so. It
/// measures nothing. It keeps what each call gives it as one line of text, copied down to the last
/// string and array, so that a test compares whole calls.
///
/// It is loaded, never linked. What finds it:
/// - a program that is started with LD_LIBRARY_PATH set to the directory of the target `fake_arm4`;
/// - a program that has opened it by its path before: the loader then knows its name. A test takes
///   the functions below with dlsym() from the handle.
///
/// With the environment variable FAKE_ARM4_LOG set, a program needs no more than that: each call is
/// appended to the file of that name, or written to the standard error stream when the name is "-",
/// as one line, when it returns:
///
///     <time> <thread> <function> <key>=<value>... -> <code> <key>=<value>...
///
/// The time is that of the call's beginning, in nanoseconds since the library was loaded; threads
/// are numbered from 1 as they come. Behind "->" stand the call's code and what it gave. Texts are
/// quoted: `\"`, `\\`, and control characters as `\x0a`. Identifiers are 32 hexadecimal digits,
/// null pointers are `null`. A buffer is `[<name of the sub-buffer>(...) ...]`. A correlator is
/// - `none`, when its length is 0;
/// - `#<handle>`, when it is the one that this library made for the transaction of that handle;
/// - `damaged`, when it was that before one of its 512 bytes changed;
/// - its bytes in hexadecimal digits otherwise.
///
///     512 1 arm_register_application app_name="shop" input_app_id=4f... flags=0 buffer=null ->
///         0 app_id=a0...01                                           (all in one line)
///     730 1 arm_start_transaction app_handle=1 tran_id=b0...01 parent=none flags=3 buffer=null ->
///         0 handle=1 tran_name="pay"
///     910 1 arm_stop_transaction handle=1 status=0 flags=0 buffer=null -> 0
///
/// Handles count from 1, as do the last bytes of the identifiers that it gives: a0...01 for an
/// application, b0...01 for a transaction.

#ifdef __cplusplus
extern "C" {
#endif

/// Forgets the calls recorded so far, and every planned code.
void fake_arm4_forget(void);

/// Whether calls are recorded; they are at first. Without recording a call takes no lock and
/// allocates nothing.
void fake_arm4_record(int on);

/// How many calls are recorded.
int fake_arm4_count(void);

/// A recorded call, as above without time and thread. Valid until the calls are forgotten.
/// @param index  0 to count - 1, else the result is null
const char* fake_arm4_call(int index);

/// The number of the thread that made the call, 0 when there is no such call.
/// @param index  as above
int fake_arm4_thread(int index);

/// Makes one function return a code. With a negative one it gives nothing else.
/// @param function  one of the seven names
/// @param nth       which call from here on, 1 = the next one
/// @param code      what it returns
void fake_arm4_plan(const char* function, int nth, int code);

/// Has a function called at the beginning of every call, with the name of the function called.
/// @param watcher  null for none
void fake_arm4_watch(void (*watcher)(const char* function));

/// The handle of the transaction that a correlator of this library belongs to; 0 when it is none,
/// or damaged.
long long fake_arm4_handle_of(const void* correlator);

/// The handle of its parent; 0 when it has none, or one of another library.
long long fake_arm4_parent_of(const void* correlator);

#ifdef __cplusplus
}
#endif

#endif
