/*
 * The operating system's core services as plain C: string lists and hashes, the error record,
 * files, processes, text.  Usable from C and from C++.
 *
 * Rules that hold for every function of this header and of share.h:
 *  - Texts are NUL-terminated byte strings in whatever encoding the system uses; nothing is
 *    converted.  Sizes are bytes, times are seconds since 1970-01-01 00:00:00 UTC.
 *  - A function that fails says so by its result and sets the error record of the calling thread;
 *    one that succeeds leaves the record alone.  Where a system call was the cause, errno holds
 *    its reason.
 *  - A null argument is an error (PLATC_ERR_INVALID_ARGUMENT, result negative or null), unless the
 *    function says that null is allowed.  Nothing crashes.
 *  - Outputs are written on success only.  Lists that a function fills are appended to.
 */
#ifndef ZORVPLATFORM_PLATC_H
#define ZORVPLATFORM_PLATC_H

#include <stdio.h>

#define PLATC_EXPORT __attribute__((visibility("default")))

/* Codes of the error record. */
#define PLATC_ERR_RETRY 0x0400            /* cannot be told for the moment: ask again */
#define PLATC_ERR_PIPE 0x0900             /* a command could not be started */
#define PLATC_ERR_INVALID_ARGUMENT 0x0D00 /* null, out of range, or of another form */
#define PLATC_ERR_NO_SUCH_SHARE 0x1400    /* no share has that name */
#define PLATC_ERR_SYSTEM_CALL 0x2A00      /* the system refused, see errno (also: out of memory) */
#define PLATC_ERR_CONFIGURATION 0x2B00    /* what is configured makes no sense, or is not there */
#define PLATC_ERR_VOLUME_PATH 0xBE00      /* a path that lies on no volume */

/* The only flags of PLATCFileEnumDir, and its only type. */
#define PLATC_ENUM_THIS_DIR 0
#define PLATC_ENUM_NON_DIRS 128

#ifdef __cplusplus
extern "C" {
#endif

typedef int BOOL;

/* ---- String lists ---------------------------------------------------------------------------- */

/* A list of strings that grows on push.  `count` strings are in use, `items[0]` to
 * `items[count - 1]`; they belong to the list.  Callers read the fields, only the functions below
 * write them. */
typedef struct _tag_PLATSZLIST {
  int capacity; /* strings that fit before the next growth */
  int count;
  char** items;
} PLATSZLIST;

/* An empty list with room for `capacity` strings; free it with PLATCSzListFree.
 * Null: `capacity` below 1 (invalid argument), or out of memory (system call). */
PLATC_EXPORT PLATSZLIST* PLATCSzListAlloc(int capacity);

/* Appends a copy of `text`.  The index of the new string, or negative: null argument, or out of
 * memory; the list is then as it was. */
PLATC_EXPORT int PLATCSzListPush(PLATSZLIST** list, const char* text);

/* The string at `index`, counted from 0; it belongs to the list.  Null: no such element
 * (invalid argument). */
PLATC_EXPORT const char* PLATCSzListGet(const PLATSZLIST* list, int index);

/* Drops all strings; the capacity stays. */
PLATC_EXPORT void PLATCSzListRemoveAll(PLATSZLIST* list);

/* Frees the list and its strings.  Null is allowed. */
PLATC_EXPORT void PLATCSzListFree(PLATSZLIST* list);

/* ---- String hashes --------------------------------------------------------------------------- */

/* A map from key to value, both strings; a key may be there without a value. */
typedef struct _tag_PLATSZHASH PLATSZHASH;

/* An empty hash; `capacity` is a hint of how many keys will come.  Free it with PLATCSzHashFree.
 * Null: `capacity` below 1 (invalid argument), or out of memory (system call). */
PLATC_EXPORT PLATSZHASH* PLATCSzHashAlloc(int capacity);

/* Sets `key` to a copy of `value`, replacing what it had.  A null value is allowed and makes a key
 * without one.  0, or negative: null argument, or out of memory. */
PLATC_EXPORT int PLATCSzHashSetValue(PLATSZHASH** hash, const char* key, const char* value);

/* The value of `key`; it belongs to the hash, until the key is set again.  Null: no such key, or a
 * key without a value (the error record stays), or a null argument (the record is set). */
PLATC_EXPORT const char* PLATCSzHashGetValue(const PLATSZHASH* hash, const char* key);

/* Appends all keys to `*keys`, in the order of their bytes.  How many, or negative: null argument,
 * or out of memory; the list is then as it was. */
PLATC_EXPORT int PLATCSzHashEnumKey(const PLATSZHASH* hash, PLATSZLIST** keys);

/* Frees the hash, its keys and values.  Null is allowed. */
PLATC_EXPORT void PLATCSzHashFree(PLATSZHASH* hash);

/* ---- Error record ---------------------------------------------------------------------------- */

/* Each thread has a record of its own: code, source unit, line.  It starts as 0, "", 0. */

/* Sets the record.  `file` is copied (at most 255 bytes of it; null counts as "") and is a unit
 * name such as "platform/process".  Leaves errno alone. */
PLATC_EXPORT void PLATCErrSetEx(unsigned int code, const char* file, unsigned int line);

PLATC_EXPORT unsigned int PLATCErrGet(void);

/* Never null; valid until the thread sets its record again. */
PLATC_EXPORT const char* PLATCErrorGetFile(void);

PLATC_EXPORT unsigned int PLATCErrorGetLine(void);

/* What happened, why and where, in words for a person: with the file and the line where one has to
 * be mended. "" when the code says all there is to say.  One line of at most 1023 bytes, without a
 * period; names and paths in it may hold bytes that are not UTF-8.  Never null; valid until the
 * thread sets its record again. */
PLATC_EXPORT const char* PLATCErrorGetText(void);

/* ---- Files ----------------------------------------------------------------------------------- */

/* 1: `path` exists, symbolic links followed.  0: it does not, or cannot be reached.  Negative: null
 * argument. */
PLATC_EXPORT int PLATCFileExist(const char* path);

/* 1: `path` is a directory, symbolic links followed.  0: it is not, or cannot be reached. Negative:
 * null argument. */
PLATC_EXPORT int PLATCFileCheckDir(const char* path);

/* Appends the names (not paths) of entries of the directory `path`, in the order of their bytes,
 * without "." and "..".  `flags` PLATC_ENUM_THIS_DIR: this directory alone.  `type`
 * PLATC_ENUM_NON_DIRS: everything that is not a directory; a symbolic link is none, wherever it
 * points.  How many, or negative: null argument, other flags or type (invalid argument), the
 * directory is missing or cannot be read to its end (system call); the list is then as it was. */
PLATC_EXPORT int PLATCFileEnumDir(const char* path, int flags, PLATSZLIST** names, int type);

/* ---- Processes ------------------------------------------------------------------------------- */

/* Starts a program and gives a stream of its standard output, to be closed with PLATCPclose.  No
 * shell is involved: `command` is split at blanks and tabs, its first word is the path of the
 * program (PATH is not searched), and characters that mean something to a shell
 * (|&;<>()$`\"'*?[]{}#~! and line ends) are an error.  `mode` is "r" or "rB", which are the same.
 *
 * The program gets /dev/null as standard input, the caller's standard error, environment and
 * working directory, no other descriptor, an empty signal mask and default signal dispositions.
 *
 * Null: null argument, other mode, no word, shell characters (invalid argument); or the pipe, the
 * fork or the exec failed: PLATC_ERR_PIPE, with the reason in errno (EACCES: a directory, or no
 * execute bit; ENOEXEC: a wrong format; E2BIG: too long an argument list; ENOENT, EMFILE, ...). */
PLATC_EXPORT FILE* PLATCPopen(const char* command, const char* mode);

/* The same with an argument vector, which ends with a null pointer and holds at least argv[0];
 * `path` is the program. */
PLATC_EXPORT FILE* PLATCPopenv(const char* path, const char* mode, char* const argv[]);

/* Closes a stream of PLATCPopen or PLATCPopenv: first the read end, so that a program that is still
 * writing ends by SIGPIPE, then waits for the program (also when signals arrive meanwhile).
 *
 * The wait status as waitpid(2) gives it, 0 for a program that ended well; 0 also when the status
 * is gone because the caller ignores or reaps SIGCHLD.  -1: null, or a stream that is not open here
 * (invalid argument): closed before, opened by something else, or by the process that forked this
 * one with PLATCProcForkChildNoWait.  Such a pointer is compared, never followed, and the address
 * of a stream is not given out again until the close after its own: closing twice is harmless. */
PLATC_EXPORT int PLATCPclose(FILE* stream);

/* Forks a child that nobody has to wait for.  The child's pid, 0 in the child, or negative: the
 * fork failed (system call; nothing is left behind).
 *
 * All output streams are flushed first, because the child ends through exit().  The pid is that of
 * the process that goes on; it can be signalled, is nobody's zombie and is no child of the caller,
 * whose SIGCHLD handling is neither touched nor needed.  When the call returns in the caller, the
 * child already is as follows: leader of a session of its own; /dev/null as standard input and
 * output, the caller's standard error; all other descriptors kept, except that the pipes of the
 * caller's PLATCPopen streams are shut and these streams are not open in the child; SIGCHLD at its
 * default, so that the child sees how its own commands end; every signal unblocked except SIGTERM,
 * which is blocked since before the fork.  The caller's signal mask is restored. */
PLATC_EXPORT int PLATCProcForkChildNoWait(void);

/* ---- Text ------------------------------------------------------------------------------------ */

/* Removes white space (blank, \t \n \v \f \r) at both ends, in place.  0, or negative: null. */
PLATC_EXPORT int PLATCStrTrimSpace(char* text);

#ifdef __cplusplus
}
#endif

#endif
