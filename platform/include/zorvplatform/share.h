/*
 * Shares, volumes and snapshots, and the file copy, as plain C.  The rules at the head of platc.h
 * hold here as well.
 *
 * A volume N is what stands at /volumeN (N from 1, no leading zero): a mount, a bind mount, or a
 * symbolic link; an ordinary directory there is none.  A path lies on volume N when it is on the
 * same file system, symbolic links resolved, however it was reached: btrfs is told by the fsid of
 * BTRFS_IOC_FS_INFO (linux/btrfs.h), any other by its device number.  Of two /volumeN on one file
 * system the lowest N counts.
 *
 * Shares come from four sources, the later of which are asked only where their files exist:
 *  - the volumes: a btrfs subvolume directly below a /volumeN whose name does not begin with '.',
 *    '@' or '#'.  When several volumes hold a share of one name, it is the one on the volume of
 *    lowest number among those that are there; the others are out of reach.
 *  - Samba: the shares of /etc/samba/smb.conf, as testparm tells them, that show shadow copies.
 *  - snapper: the btrfs configurations in /etc/snapper/configs.
 *  - /etc/zorv-snapusage.conf: shares that somebody has written down, which take the place of those
 *    of their name in the other sources.
 * Two sources may know one subvolume by one name; that is one share, of the source that stands
 * further down here.  A name that two of them give to different subvolumes is listed once, and
 * ZORVShareGet refuses it.
 *
 * A snapshot of a volume's share is a subvolume in the directory .snapshots of the share, and is
 * called by its name there.  Names carry a time and the zone in which it is written:
 *     GMT+08-2024.03.05-17.04.09     GMT+0530-2024.03.05-14.34.09    (east of Greenwich)
 *     GMT-0330-2024.03.05-05.34.09                                   (west of Greenwich)
 *     GMT-2024.03.05-09.04.09                                        (UTC)
 * with or without a leading '@', and with or without a number behind it, which tells those of one
 * second apart: GMT-2024.03.05-09.04.09-12.  Years have four digits, more from 10000 on.  A
 * subvolume of any other name, or with a date that no calendar has, is a snapshot without a time.
 *
 * Other sources keep their snapshots elsewhere, and call them otherwise.  Theirs are named here by
 * their time in UTC and a number, snapper's own or the ID of the subvolume, or by that number alone
 * when they have no time; and they are found as links of these names in a directory that the
 * platform keeps for each such share, a view (see ZORVShareSnapGetOrCreateSnapDir).
 */
#ifndef ZORVPLATFORM_SHARE_H
#define ZORVPLATFORM_SHARE_H

#include <time.h>

#include "zorvplatform/platc.h"

/* ZORVMOUNTVOLINFO.volumeKind */
#define ZORV_VOLUME_KIND_OTHER 0
#define ZORV_VOLUME_KIND_BTRFS 3

/* The only flags of ZORVShareEnum. */
#define ZORV_SHARE_ENUM_ALL 0x301

/* Flags of ZORVShareSnapGetOrCreateSnapDir. */
#define ZORV_SNAP_DIR_GET 0
#define ZORV_SNAP_DIR_CREATE 1

/* ZORVSHAREINFO.source */
#define ZORV_SHARE_SOURCE_VOLUME 1
#define ZORV_SHARE_SOURCE_SAMBA 2
#define ZORV_SHARE_SOURCE_SNAPPER 3
#define ZORV_SHARE_SOURCE_FILE 4

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Shares ---------------------------------------------------------------------------------- */

/* One share.  Made by ZORVShareGet alone: behind the name lies what only the platform reads, so a
 * record of a caller's own making must not be handed back to it. */
typedef struct _tag_ZORVSHARE {
  char* name; /* belongs to the record */
  /* the rest is the platform's */
} ZORVSHARE;

/* Looks a share up; free it with ZORVShareFree.  0, or negative:
 *   PLATC_ERR_INVALID_ARGUMENT  null argument
 *   PLATC_ERR_RETRY             not to be reached for the moment: EAGAIN, EBUSY or EINTR, or not
 *                               found while a volume is not there (see ZORVShareEnum)
 *   PLATC_ERR_NO_SUCH_SHARE     there is none of that name
 *   PLATC_ERR_VOLUME_PATH       it is configured, and lies on no volume
 *   PLATC_ERR_CONFIGURATION     a source's file cannot be understood; two sources give the name to
 *                               different subvolumes; or what is configured is no subvolume
 *   PLATC_ERR_SYSTEM_CALL       anything else that the system refused
 * The record's text says more wherever a file has to be looked at. */
PLATC_EXPORT int ZORVShareGet(const char* name, struct _tag_ZORVSHARE** share);

/* Null is allowed. */
PLATC_EXPORT void ZORVShareFree(struct _tag_ZORVSHARE* share);

/* Appends the names of all shares, each once, in the order of their bytes.  `flags` is
 * ZORV_SHARE_ENUM_ALL.  The volumes are read anew each time.  How many, or negative:
 *   PLATC_ERR_INVALID_ARGUMENT  null argument, other flags
 *   PLATC_ERR_RETRY             a volume is not there or cannot be read; a source's file cannot be
 *                               read for the moment
 *   PLATC_ERR_CONFIGURATION     a source's file cannot be understood, or a source not be asked
 *   PLATC_ERR_SYSTEM_CALL       out of memory, or a source's file cannot be read
 * and the list is then as it was: it is never shorter instead of an error, because callers delete
 * what is missing from it.  A volume is not there when /etc/fstab names /volumeN, or a directory at
 * or above what the link /volumeN leads to, as a mount point (noauto or not) and nothing is mounted
 * on it, or when /volumeN is a link that leads nowhere. */
PLATC_EXPORT int ZORVShareEnum(PLATSZLIST** names, int flags);

/* As ZORVShareEnum with ZORV_SHARE_ENUM_ALL, for people: where volumes are not there or cannot be
 * read, the shares of the others are told, and `missing` gets a line for each of those volumes,
 * which says which and why.  Who deletes what is missing from a list asks ZORVShareEnum.  `hidden`
 * gets a line for each subvolume that is no share because a volume of lower number has one of its
 * name, and that /etc/zorv-snapusage.conf does not speak of.  The lines are without a period at the
 * end, and names in them may hold any bytes.  How many shares, or negative, with lists that may
 * have grown: PLATC_ERR_INVALID_ARGUMENT  null argument PLATC_ERR_RETRY             it cannot be
 * told which volumes there are; or as for ZORVShareEnum others                      as for
 * ZORVShareEnum */
PLATC_EXPORT int ZORVShareSurvey(PLATSZLIST** names, PLATSZLIST** missing, PLATSZLIST** hidden);

/* Where a share comes from and where it lies. */
typedef struct _tag_ZORVSHAREINFO {
  int source;             /* ZORV_SHARE_SOURCE_* */
  const char* place;      /* what tells of it: "/volume1", or a file: "/etc/samba/smb.conf",
                             "/etc/snapper/configs/home", "/etc/zorv-snapusage.conf:7" (line 7) */
  const char* path;       /* of its subvolume */
  const char* volumePath; /* "/volumeN" of the volume on which it lies */
  const char* snapDir;    /* where its source keeps the snapshots; need not exist */
} ZORVSHAREINFO;

/* Tells what is known of a share.  The texts belong to `share`.  0, or negative: null argument. */
PLATC_EXPORT int ZORVShareInfoGet(const struct _tag_ZORVSHARE* share, ZORVSHAREINFO* info);

/* ---- Volumes --------------------------------------------------------------------------------- */

/* Writes the path "/volumeN" of the volume on which `path` lies, with its NUL, to `volumePath` of
 * `size` bytes.  `path` must exist; it may be of any file type.  0, or negative:
 *   PLATC_ERR_INVALID_ARGUMENT  null argument, or `size` too small
 *   PLATC_ERR_VOLUME_PATH       `path` lies on no volume, or does not exist (errno) */
PLATC_EXPORT int VolumePathParseEx(const char* path, char* volumePath, int size);

typedef struct _tag_ZORVMOUNTVOLINFO {
  int volumeNum;  /* N of /volumeN                                       */
  int volumeKind; /* ZORV_VOLUME_KIND_*, seen from the file system itself */
} ZORVMOUNTVOLINFO;

/* Tells about the volume at `volumePath`, a path as VolumePathParseEx gives it; any other path on
 * the volume serves as well.  0, or negative: PLATC_ERR_INVALID_ARGUMENT (null argument),
 * PLATC_ERR_VOLUME_PATH (as above). */
PLATC_EXPORT int ZORVMountVolInfoGet(const char* volumePath, ZORVMOUNTVOLINFO* info);

/* ---- Snapshots ------------------------------------------------------------------------------- */

/* A chain of conditions on snapshot names, all of which must hold.  Null is the empty chain, which
 * every snapshot passes. */
typedef struct _tag_ZORVSHARESNAPSELECTOR ZORVSHARESNAPSELECTOR;

/* One condition.  1: the snapshot is selected.  0: it is not.  Negative: the condition makes no
 * sense; the listing fails, with the error record that this function has set. */
typedef int (*ZORVSHARESNAPSELECTFN)(const char* snapName, const char* argument);

/* Selects by time.  `argument` is one of ">=NAME", "<=NAME", ">NAME", "<NAME", "=NAME", NAME being
 * a snapshot name that carries a time; two names are compared by their seconds, whatever their
 * zones. 1 or 0; 0 for a snapshot without a time; negative: null argument, or an argument of
 * another form (invalid argument). */
PLATC_EXPORT int ZORVShareSnapTimeSelector(const char* snapName, const char* argument);

/* Appends a condition to the chain; `*selectors` is null before the first.  `argument` is copied.
 * The chain is freed with ZORVShareSnapEnumFree.  0, or negative: null argument, an argument that
 * ZORVShareSnapTimeSelector does not understand (invalid argument), out of memory (system call);
 * the chain is then as it was. */
PLATC_EXPORT int ZORVShareSnapSelectorAdd(ZORVSHARESNAPSELECTOR** selectors,
                                          ZORVSHARESNAPSELECTFN fn, const char* argument);

/* Frees the chain.  Null is allowed. */
PLATC_EXPORT void ZORVShareSnapEnumFree(ZORVSHARESNAPSELECTOR* selectors);

/* Appends the names of the snapshots that pass all `selectors` (null is allowed: all of them), in
 * the order of their times, those of one time in the order of their numbers and then of their
 * bytes, those without a time last.  A share without a directory of snapshots has none.  A share
 * with a view has it renewed: afterwards it holds exactly the snapshots that there are, passed or
 * not.  0, or negative: null argument, a selector that failed (its own code), the share is gone,
 * its directory cannot be read to its end or the view not be made (system call), or what stands in
 * the place of one of them is not root's (configuration); the list is then as it was. */
PLATC_EXPORT int ZORVShareSnapList(const struct _tag_ZORVSHARE* share, PLATSZLIST** names,
                                   const ZORVSHARESNAPSELECTOR* selectors);

/* Writes the path of the directory where the share's snapshots are found by their names, with its
 * NUL, to `dir` of `size` bytes: its snapshot directory, or its view, which is made and renewed by
 * ZORVShareSnapList and belongs to the platform alone.  A share with a view has no use for `flags`.
 * `flags` ZORV_SNAP_DIR_GET: creates nothing, also when the directory is missing;
 * ZORV_SNAP_DIR_CREATE: makes it, mode 0755, when it is missing.  1: done.  Negative: null
 * argument, other flags, `size` too small (invalid argument), it could not be made (system call).
 */
PLATC_EXPORT int ZORVShareSnapGetOrCreateSnapDir(const struct _tag_ZORVSHARE* share, char* dir,
                                                 int size, int flags);

/* How many subvolumes in the share's directory of snapshots are none of it because their names do
 * not fit its format, which `format` is then; it belongs to `share`, and is "" for a share that
 * takes names as they are, where there are none of these.  Negative: null argument, or as for
 * ZORVShareSnapList. */
PLATC_EXPORT int ZORVShareSnapUnfit(const struct _tag_ZORVSHARE* share, const char** format);

/* The time that a snapshot's name carries.  0, or negative: null argument, or a name without a time
 * (invalid argument). */
PLATC_EXPORT int ZORVShareSnapTimeGet(const char* snapName, time_t* time);

/* What the share's source knows of a snapshot. */
typedef struct _tag_ZORVSHARESNAPINFO {
  const char* sourceName;    /* what the source calls it: "12" of snapper, the name of a folder */
  unsigned long long number; /* snapper's number; 0: of another source */
  const char* type;          /* snapper's: "single", "pre" or "post"; "": of another source, or not
                                to be told */
  const char* description;   /* snapper's, "" when there is none.  Text of those who may make
                                snapshots, UTF-8, with any control character but NUL */
  const char* problem;       /* why type and description cannot be told; "" when they are */
} ZORVSHARESNAPINFO;

/* Tells what is known of the snapshot that ZORVShareSnapList calls `snapName`; free it with
 * ZORVShareSnapInfoFree.  A snapshot whose source tells no more of it is not looked for: where only
 * its name is to be told, any name is one.  0, or negative: null argument, a name that no snapshot
 * of this share can have or that was not in the view when it was renewed last (invalid argument),
 * the system refused (system call). */
PLATC_EXPORT int ZORVShareSnapInfoGet(const struct _tag_ZORVSHARE* share, const char* snapName,
                                      ZORVSHARESNAPINFO** info);

/* Null is allowed. */
PLATC_EXPORT void ZORVShareSnapInfoFree(ZORVSHARESNAPINFO* info);

/* ---- File copy ------------------------------------------------------------------------------- */

/* Copies the regular file `source` to `destination`, which is replaced in one step: a reader sees
 * the old file or the whole new one, and the new one is on the disk before it takes the place.  A
 * destination that exists keeps its owner, group and permission bits; a new one gets the permission
 * bits of the source, less the umask.  A symbolic link at `destination` is itself replaced.
 * `flags` is 0.  0, or negative: null argument, other flags (invalid argument), the source is no
 * regular file, or anything that the system refused (system call); the destination is then as it
 * was, and nothing is left beside it. */
PLATC_EXPORT int ZORVFileCopy(const char* source, const char* destination, int flags);

#ifdef __cplusplus
}
#endif

#endif
