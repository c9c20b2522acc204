/* Plain functions of tolvex, for any language that can call C: recording of signals and CAN
 * frames, CAN frame handles, and the library's diagnostics.
 *
 * Objects are passed as handles (void*): recorders, records, channels, formulas and messages. Each
 * comes from the function that makes it and is freed by the one that is named with it; a handle of
 * another kind is not recognised as wrong. Null handles are: functions return -1, 0, false or null,
 * or do nothing. No handle keeps another one alive or needs it: channels, formulas and records may
 * be freed in any order, and as soon as they were used.
 *
 * Functions of type int return 0 for success and -1 for failure unless they say otherwise. Nothing
 * is thrown. Texts are NUL-terminated UTF-8 and are copied; a text's size is ignored unless a
 * parameter says otherwise. Numbers behind a pointer are in the machine's byte order, and need not
 * be aligned.
 *
 * Integer times are microseconds since 1970-01-01 00:00 UTC, times in records are seconds since the
 * recording's start, sizes are bytes. Names beginning with cn_ and cc_ are the format's, of the
 * blocks that describe channels (CN) and conversions (CC).
 *
 * Threads: a handle is used by one thread at a time. On an asynchronous recorder, any number of
 * threads may insert records and save frames at once, each with frame and record handles of its
 * own, while one more starts, stops and defines groups.
 *
 * Example: a group with one signal. examples/record_signals.c has conversions and CAN frames too.
 *
 *   void* recorder = createRecorder(true);
 *   if (startRecord(recorder, "drive.mf4", 0) != 0) return 1;
 *   const int group = addDataGroup(recorder, "engine");
 *   const uint8_t master = 2, byTime = 1, float64 = 4;
 *   const uint32_t bytes = 8;
 *   void* channel = allocChannel();
 *   setChannelParameter(channel, MDF_CHANNEL_NAME, 0, "time");
 *   setChannelParameter(channel, MDF_CHANNEL_TYPE, 1, &master);
 *   setChannelParameter(channel, MDF_CHANNEL_SYNC_TYPE, 1, &byTime);
 *   setChannelParameter(channel, MDF_CHANNEL_DATA_TYPE, 1, &float64);
 *   setChannelParameter(channel, MDF_CHANNEL_BYTE_COUNT, 4, &bytes);
 *   addChannelToDG(recorder, group, channel);
 *   freeChannel(channel);  // the group has its own copy; "speed" is added likewise
 *
 *   void* record = allocRecord(recorder, group);
 *   const double seconds = 0.5;
 *   fillRecordData(record, "time", sizeof seconds, &seconds);
 *   insertRecordToDG(recorder, group, record);
 *   freeRecord(record);
 *   stopRecord(recorder, 0);
 *   deleteRecorder(recorder);
 */
#ifndef TOLVEX_MDF_ENGINE_H
#define TOLVEX_MDF_ENGINE_H

#ifndef __cplusplus
#include <stdbool.h>
#endif
#include <stdint.h>

#include "tolvex/MdfExport.h"
#include "tolvex/MdfVersion.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------------------------------
 * Diagnostics */

/* Sets who receives the library's diagnostic texts, which go to the standard output until the first
 * call. `handler` receives each text (complete lines, ending in a line feed) with `user`, on the
 * thread where the event happened, possibly on several at once; the text is valid during the call
 * only. A null handler drops all texts.
 *
 * One setting for the process. A text that is being delivered on another thread may still go to the
 * earlier handler, so what that one uses must stay valid until the library's threads have ended
 * (stopRecord). A handler must not call functions of a recorder, which may be waiting for it. */
TOLVEX_API void setDiagnosticHandler(void (*handler)(void* user, const char* text), void* user);

/* ---------------------------------------------------------------------------------------------
 * Recorder
 *
 * createRecorder, startRecord, addDataGroup and addChannelToDG for signals, records and frames in
 * any order, stopRecord, deleteRecorder. Groups belong to the open file: they are added after
 * startRecord and are gone after stopRecord. Only stopRecord completes a file.
 *
 * A write that fails is reported by the call in which it happens, and undone: the next call tries
 * again. Records gather in memory, 512 per group, so a full disk may show later than in the call
 * that inserted the record; ask getLostRecordCount and getRecorderError after stopRecord.
 *
 * A recording belongs to the process that started it. In a child process (fork) its file is closed,
 * without an effect on the parent's: the child may delete the recorder, all other calls fail or
 * have no lasting effect. The child may use recorders that are not recording, and new ones. */

/* A recorder that writes on the calling thread, or (`async`) queues records and frames for a thread
 * of its own: then only calls that define groups, save CAN errors or insert raw bytes wait for the
 * disk. Null without memory. Free it with deleteRecorder. */
TOLVEX_API void* createRecorder(bool async);
/* Frees the recorder. A recording that was not stopped remains incomplete: what is queued is
 * written, but neither the last records of each group nor their number. */
TOLVEX_API void deleteRecorder(void* recorder);

/* What setParameter sets. The last two apply to all recorders of the process. */
enum MdfRecorderParameter {
  MDF_RECORDER_PROGRAM = 0,    /* text of `dataSize` bytes: program identifier, its first 8 count */
  MDF_RECORDER_TEXT1 = 1,      /* text, kept only */
  MDF_RECORDER_TEXT2 = 2,      /* text, kept only */
  MDF_RECORDER_VERSION = 3,    /* uint32_t: version number of new files, 410 by default */
  MDF_RECORDER_SPLIT_SIZE = 4, /* uint64_t: a file that grows beyond it is followed by the next;
                                  0, the default: never. Each file reserves a block of 512 records
                                  for every group that gets a record: see getReservedSize */
};
/* Sets a parameter from the `dataSize` bytes at `data`, which must be at least as many as its type
 * has. Unknown ids return 0 and change nothing. */
TOLVEX_API int setParameter(void* recorder, int paramId, int dataSize, const void* data);
/* Replaces the start time, from which times in records count; 0 leaves the file's as it is. */
TOLVEX_API void setStartTime(void* recorder, uint64_t startTime);
/* Flushes files to the disk after every interval in which they were written to, and when they are
 * complete, before stopRecord returns; 0, the default, leaves that to the system. A thread of its
 * own does it, and only stopRecord waits for it. A failure shows in getRecorderError. Applies to
 * files that are created from then on. */
TOLVEX_API int setFlushInterval(void* recorder, uint32_t milliseconds);
/* Whether an existing file is emptied, as by default. If not, startRecord returns 1 for one that is
 * not empty, and a recording that would split into one continues in its file. Applies to files that
 * are created from then on. */
TOLVEX_API int setOverwrite(void* recorder, bool overwrite);
/* Bytes that each file reserves for the present groups once all of them have records. With a split
 * size below it files hold few records; the diagnostics of a recording that splits so mention it
 * once. */
TOLVEX_API uint64_t getReservedSize(void* recorder);
/* Creates the file, and empties one that exists, and starts recording; a recording under way is
 * finished first. A `startTime` of 0 means now. Returns 1 when the file cannot be created, or is
 * locked by a recorder of this or another process that is recording into it. */
TOLVEX_API int startRecord(void* recorder, const char* path, uint64_t startTime);
/* Writes what is queued, completes the file and closes it. Nothing without a recording. */
TOLVEX_API void stopRecord(void* recorder, uint64_t stopTime);
/* Sets the largest payload of a recorded CAN frame: 8 to 64 bytes, to which `maxDataLength` is
 * clamped; 8 without this call. `busType` must be 0, CAN. Groups of frames that the file already
 * has keep their size, and saveCanMessage refuses frames for them until that size is set again. */
TOLVEX_API int createBusLogConfiguration(void* recorder, int busType, int maxDataLength);

/* Records and frames that an asynchronous recorder has accepted and not yet written; of records
 * that came many at a time, the tasks (insertRecordsToDG). 0 for any other. May be called by any
 * thread. */
TOLVEX_API uint64_t getPendingTaskCount(void* recorder);
/* How many may be pending, as getPendingTaskCount counts: with that many, an asynchronous recorder
 * discards new ones. */
TOLVEX_API uint32_t getMaxPendingTasks(void* recorder);
/* Records and frames of the current recording, or the last one after its end, that could not be
 * written, including those that had been accepted. What stopRecord could not write counts when it
 * has returned. */
TOLVEX_API uint64_t getLostRecordCount(void* recorder);
/* Copies the first failure of the current or last recording ("" without one) into `text`, at most
 * `size` bytes with the NUL. Returns its whole length without the NUL; -1 for a null argument or a
 * negative size. */
TOLVEX_API int getRecorderError(void* recorder, char* text, int size);

/* ---------------------------------------------------------------------------------------------
 * CAN frames
 *
 * They go into bus-log groups, which the recorder adds when they are needed: one for each kind of
 * frame, bus channel and direction; an asynchronous recorder has all data frames in one. The frame
 * is copied. All three return -1 also for a frame that was discarded because the queue is full, or
 * that could not be written. */

/* Records a data or remote frame. `message` is a handle of MdfCanMessageInit, in C++ also a pointer
 * to a tolvex::MdfCanMessage. Its payload is cut to the largest one (createBusLogConfiguration),
 * its code is not. */
TOLVEX_API int saveCanMessage(void* recorder, uint64_t timestamp, const void* message);
/* Records `message` as an error frame, of CAN FD when its Edl flag is set. */
TOLVEX_API int saveCanError(void* recorder, uint64_t timestamp, const void* message);
/* Records the error frame at `error`, a pointer to a tolvex::MdfCanError. */
TOLVEX_API int saveCanErrorFromCanError(void* recorder, uint64_t timestamp, const void* error);

/* ---------------------------------------------------------------------------------------------
 * Data groups and records
 *
 * A data group has one sequence of records, all of the same channels, which are stored back to back
 * in the order in which they were added. Groups are numbered from 0 in the order in which they are
 * added; the recorder's own bus-log groups count, too. */

/* Adds a group with that comment (null or "": none). Returns its index, or -1 without a recording
 * or when a write fails. */
TOLVEX_API int addDataGroup(void* recorder, const char* name);
/* Adds a copy of the channel behind those of the group. -1 for a channel of type 1 (variable
 * length), a name that the group has, a bit mask wider than the channel's bytes, and any channel
 * once the group has had a record. */
TOLVEX_API int addChannelToDG(void* recorder, int dgIndex, const void* channel);
/* A zeroed record with the channels that the group has now; null for an index without a group. It
 * stays valid after the recording, and is used for any number of records. Free it with freeRecord.
 */
TOLVEX_API void* allocRecord(void* recorder, int dgIndex);
/* Sets a channel's first `size` bytes, as they go into the file; its other bytes stay. More bytes
 * than the channel has zero it and return -1, as does a name that the record does not have. Fastest
 * in the order of the channels. */
TOLVEX_API int fillRecordData(void* record, const char* channelName, int size, const void* data);
/* Zeroes the record. */
TOLVEX_API void resetRecordData(void* record);
/* Records it, or queues a copy, then zeroes it in any case. Its channel "time" holds seconds since
 * the start time as a float64. -1 when it was discarded, and for a record of another size
 * than the group's; an asynchronous recorder finds that later, and counts it as lost. */
TOLVEX_API int insertRecordToDG(void* recorder, int dgIndex, void* record);
/* Always -1, as it names no group. Leaves the record as it is. */
TOLVEX_API int insertData(void* recorder, void* record);
/* Records the `size` bytes of a whole record directly, past the queue of an asynchronous recorder.
 * -1 for another size than the group's records have. */
TOLVEX_API int insertDataToDG(void* recorder, unsigned dgIndex, int size, const void* data);
/* Records many records, each of `size` bytes, back to back at `data`, as insertDataToDG does with
 * one; an asynchronous recorder queues copies of them, as insertRecordToDG does, in tasks of up to
 * 512 records and 64 KiB. Returns how many were taken, from the first on: fewer when the queue is
 * full, when a write fails, which loses those that were not taken, and when the system refuses a
 * split. -1 when none can be: without a recording, for a group that does not exist, and for another
 * size than its records have, which an asynchronous recorder finds later, and counts as lost. */
TOLVEX_API int64_t insertRecordsToDG(void* recorder, unsigned dgIndex, uint64_t count, int size,
                                     const void* data);
/* Frees a record of allocRecord. */
TOLVEX_API void freeRecord(void* record);

/* ---------------------------------------------------------------------------------------------
 * Channels
 *
 * A channel handle describes a channel until it is added to a group, any number of times. */

/* A channel with every number 0 and every text empty. Free it with freeChannel. */
TOLVEX_API void* allocChannel(void);
TOLVEX_API void freeChannel(void* channel);

/* What setChannelParameter sets, and the type it reads. */
enum MdfChannelParameter {
  MDF_CHANNEL_TYPE = 0,       /* uint8_t: cn_type; 0 value, 2 master */
  MDF_CHANNEL_SYNC_TYPE = 1,  /* uint8_t: cn_sync_type; 1 time */
  MDF_CHANNEL_NAME = 2,       /* text */
  MDF_CHANNEL_UNIT = 3,       /* text */
  MDF_CHANNEL_LIMIT_MIN = 4,  /* double */
  MDF_CHANNEL_LIMIT_MAX = 5,  /* double */
  MDF_CHANNEL_DATA_TYPE = 6,  /* uint8_t: cn_data_type; 0, 1 unsigned, 2, 3 signed, 4, 5 float, the
                                 even ones little endian; 6 Latin-1, 7 UTF-8, 10 bytes */
  MDF_CHANNEL_BYTE_COUNT = 7, /* uint32_t */
  MDF_CHANNEL_COMMENT = 8,    /* text */
  MDF_CHANNEL_VALUE_TYPE = 9, /* uint8_t: of the bytes given to fillRecordData; 1, 3 big endian,
                                 which a channel with a bit mask turns around */
  MDF_CHANNEL_BIT_MASK = 10   /* uint64_t: the bits of the field that are the channel's; 0: all */
};
/* Sets one property from `data`, which is read as its type says, whatever `size` is. -1 for an
 * unknown id. */
TOLVEX_API int setChannelParameter(void* channel, int paramId, int size, const void* data);
/* Sets how the channel's raw values become physical ones: by a copy of the formula. */
TOLVEX_API int setChannelFormula(void* channel, const void* formula);

/* ---------------------------------------------------------------------------------------------
 * Formulas: the conversions of the format, by kind (cc_type)
 *
 *   1 linear                    physical = p0 + p1 raw
 *   2 rational                  physical = (p0 raw^2 + p1 raw + p2) / (p3 raw^2 + p4 raw + p5)
 *   3 algebraic                 a text, in which X is the raw value
 *   4 value to value            on the line between the nearest keys
 *   5 value to value            the value of the nearest key
 *   6 range to value            the value of the first range that holds the raw one
 *   7 value to text             the text of an equal key
 *   8 range to text             the text of the first range that holds the raw value
 *
 * The parameters p are set by setFormulaParam, entries of the tables 4 to 8 are added one by one;
 * keys of 4 and 5 must ascend. Another kind is written as no conversion. */

/* A formula without parameters. Free it with freeFormula. */
TOLVEX_API void* allocFormula(uint8_t kind);
TOLVEX_API void freeFormula(void* formula);
/* Kinds 1, 2: replaces the parameters by the doubles at `data`, `size` bytes, a multiple of 8. Kind
 * 3: sets the text at `data`. -1 for other kinds. */
TOLVEX_API int setFormulaParam(void* formula, int size, const void* data);
/* Each adds one entry: N2N for kinds 4 and 5, N2T for 7, R2N for 6, R2T for 8. The formula's kind
 * is not checked. */
TOLVEX_API int addFormulaParamN2N(void* formula, double key, double value);
TOLVEX_API int addFormulaParamN2T(void* formula, double key, const char* text);
TOLVEX_API int addFormulaParamR2N(void* formula, double min, double max, double value);
TOLVEX_API int addFormulaParamR2T(void* formula, double min, double max, const char* text);
/* Sets what applies when no entry does. Kind 6: the double at `data`. Kinds 7, 8: the text at
 * `data`. -1 for other kinds. */
TOLVEX_API int setFormulaParamDefault(void* formula, int size, const void* data);

/* ---------------------------------------------------------------------------------------------
 * CAN frame handles
 *
 * The fields of a frame, one function to read and one to set each; tolvex::MdfCanMessage
 * (tolvex/MdfFrames.h) says more about them.
 *
 *   void* message = MdfCanMessageInit();
 *   MdfCanMessageSetBusChannel(message, 1);
 *   MdfCanMessageSetMessageId(message, 0x123);
 *   MdfCanMessageSetDataBytes(message, payload, 3);
 *   saveCanMessage(recorder, microseconds, message);
 *   MdfCanMessageUnInit(message); */

/* A frame with every field 0. Free it with MdfCanMessageUnInit. */
TOLVEX_API void* MdfCanMessageInit(void);
/* Frees the handle. A payload that was set is not freed with it, so use one handle for many frames.
 */
TOLVEX_API void MdfCanMessageUnInit(void* message);

/* The identifier with the extended flag in bit 31. Setting a value above 0x7FF sets the flag. */
TOLVEX_API uint32_t MdfCanMessageGetMessageId(const void* message);
TOLVEX_API void MdfCanMessageSetMessageId(void* message, uint32_t messageId);
/* The identifier without the flag. */
TOLVEX_API uint32_t MdfCanMessageGetCanId(const void* message);
TOLVEX_API bool MdfCanMessageGetExtendedId(const void* message);
TOLVEX_API void MdfCanMessageSetExtendedId(void* message, bool extended);
/* The data length code, 0..15. Setting it resizes the payload to the code's length (8 by the code
 * itself, then 12, 16, 20, 24, 32, 48, 64); -1, with nothing changed, for a code above 15. */
TOLVEX_API uint8_t MdfCanMessageGetDlc(const void* message);
TOLVEX_API int MdfCanMessageSetDlc(void* message, uint8_t dlc);
/* Payload bytes that the code stands for. Setting chooses the smallest code that holds `length`;
 * above 64 counts as 8. */
TOLVEX_API uint32_t MdfCanMessageGetDataLength(const void* message);
TOLVEX_API void MdfCanMessageSetDataLength(void* message, uint32_t length);
/* Copies the payload into `bytes`, which has room for 64, unless it is null. Returns its size. */
TOLVEX_API uint32_t MdfCanMessageGetDataBytes(const void* message, uint8_t* bytes);
/* Copies `count` bytes into the payload and sets the smallest code that holds them; positions up to
 * the code's length become 0. Null with a `count` of 0 empties it. */
TOLVEX_API void MdfCanMessageSetDataBytes(void* message, const uint8_t* bytes, uint32_t count);
/* The number of the record that a reader made the frame from; recorders ignore it. */
TOLVEX_API uint64_t MdfCanMessageGetDataIndex(const void* message);
TOLVEX_API void MdfCanMessageSetDataIndex(void* message, uint64_t index);
/* Flags. Dir: transmitted, not received. Srr: substitute remote request. Edl: CAN FD. Brs: bit rate
 * switch. Esi: error passive sender. Rtr: remote frame. Of WakeUp and SingleWire each reads back as
 * the other. */
TOLVEX_API bool MdfCanMessageGetDir(const void* message);
TOLVEX_API void MdfCanMessageSetDir(void* message, bool dir);
TOLVEX_API bool MdfCanMessageGetSrr(const void* message);
TOLVEX_API void MdfCanMessageSetSrr(void* message, bool srr);
TOLVEX_API bool MdfCanMessageGetEdl(const void* message);
TOLVEX_API void MdfCanMessageSetEdl(void* message, bool edl);
TOLVEX_API bool MdfCanMessageGetBrs(const void* message);
TOLVEX_API void MdfCanMessageSetBrs(void* message, bool brs);
TOLVEX_API bool MdfCanMessageGetEsi(const void* message);
TOLVEX_API void MdfCanMessageSetEsi(void* message, bool esi);
TOLVEX_API bool MdfCanMessageGetRtr(const void* message);
TOLVEX_API void MdfCanMessageSetRtr(void* message, bool rtr);
TOLVEX_API bool MdfCanMessageGetWakeUp(const void* message);
TOLVEX_API void MdfCanMessageSetWakeUp(void* message, bool wakeUp);
TOLVEX_API bool MdfCanMessageGetSingleWire(const void* message);
TOLVEX_API void MdfCanMessageSetSingleWire(void* message, bool singleWire);
/* The number of the bus, from 1: readers of the file subtract 1. */
TOLVEX_API uint8_t MdfCanMessageGetBusChannel(const void* message);
TOLVEX_API void MdfCanMessageSetBusChannel(void* message, uint8_t busChannel);
/* Where in the frame an error was met, in bits, and its kind (tolvex::CanErrorType); neither is
 * recorded. */
TOLVEX_API uint8_t MdfCanMessageGetBitPosition(const void* message);
TOLVEX_API void MdfCanMessageSetBitPosition(void* message, uint8_t bitPosition);
TOLVEX_API uint8_t MdfCanMessageGetErrorType(const void* message);
TOLVEX_API void MdfCanMessageSetErrorType(void* message, uint8_t errorType);

#ifdef __cplusplus
}
#endif

#endif
