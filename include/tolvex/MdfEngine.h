/* Plain functions of tolvex, for any language that can call C: recording of signals and CAN
 * frames, CAN frame handles, and the library's diagnostics.
 *
 * Objects are passed as handles (void*). Each kind comes from the function that makes it and goes
 * with the one that frees it; a handle of another kind is not recognised as wrong. Null handles
 * are: functions answer -1, 0, false or null, or do nothing.
 *
 * Functions of type int give 0 for success and -1 for failure unless they say otherwise. Nothing is
 * thrown. Texts are NUL-terminated UTF-8 and are copied; a size beside a text is not looked at.
 *
 * Times are microseconds since 1970-01-01 00:00 UTC, sizes are bytes.
 *
 * Threads: a handle is used by one thread at a time. On an asynchronous recorder, any number of
 * threads may insert records and save frames at once, each with frame and record handles of its
 * own, and one more may start, stop and define groups.
 */
#ifndef TOLVEX_MDF_ENGINE_H
#define TOLVEX_MDF_ENGINE_H

#ifndef __cplusplus
#include <stdbool.h>
#endif
#include <stdint.h>

#include "tolvex/MdfExport.h"

#define TOLVEX_API TOLVEX_EXPORT

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------------------------------
 * Diagnostics */

/* Directs the library's diagnostic texts, which go to the standard output until the first call.
 * `handler` receives each text (complete lines, ending in a line feed) with `user`, on the thread
 * that met the event, possibly on several at once; the text is the handler's only during the call.
 * A null handler drops all texts. One setting for the process; a call that is under way in another
 * thread may still use the earlier one. A handler must not call functions of a recorder, which may
 * be the one that is waiting for it. */
TOLVEX_API void setDiagnosticHandler(void (*handler)(void* user, const char* text), void* user);

/* ---------------------------------------------------------------------------------------------
 * Recorder
 *
 * createRecorder, startRecord, addDataGroup and addChannelToDG for signals, records and frames in
 * any order, stopRecord, deleteRecorder. Groups belong to the open file: they are added after
 * startRecord and gone after stopRecord. Only stopRecord completes a file.
 *
 * A recording belongs to the process that started it. In a child process (fork) its file is closed,
 * without an effect on the parent's: the child may delete the recorder, all other calls fail or do
 * nothing that lasts. Recorders that are not recording, or new ones, are the child's to use. */

/* A recorder that writes on the calling thread, or (`async`) queues records and frames for a thread
 * of its own: no call then waits for the disk, but for those that define groups and CAN errors. */
TOLVEX_API void* createRecorder(bool async);
/* Frees the recorder. A recording that was not stopped stays without its end. */
TOLVEX_API void deleteRecorder(void* recorder);

/* What setParameter sets. The last two hold for all recorders of the process. */
enum MdfRecorderParameter {
  MDF_RECORDER_PROGRAM = 0,    /* text of `dataSize` bytes: program identifier, its first 8 count */
  MDF_RECORDER_TEXT1 = 1,      /* text, kept only */
  MDF_RECORDER_TEXT2 = 2,      /* text, kept only */
  MDF_RECORDER_VERSION = 3,    /* uint32_t: version number of new files, 410 by default */
  MDF_RECORDER_SPLIT_SIZE = 4, /* uint64_t: a file that grows beyond it is followed by the next;
                                  0, the default: never. Each file reserves a block of 512 records
                                  for every group that gets a record: see getReservedSize */
};
/* Sets a parameter from the `dataSize` bytes at `data`. Unknown ids give 0 and change nothing. */
TOLVEX_API int setParameter(void* recorder, int paramId, int dataSize, const void* data);
TOLVEX_API void setStartTime(void* recorder, uint64_t startTime);
/* Flushes files to the disk every so many milliseconds in which they were written to, and at their
 * end, before stopRecord returns; 0, the default, leaves that to the system. A thread of its own
 * does it, for which only stopRecord waits. A failure shows in getRecorderError. For files that are
 * created from then on. */
TOLVEX_API int setFlushInterval(void* recorder, uint32_t milliseconds);
/* Whether files that exist are emptied, as by default. If not, startRecord gives 1 for one that
 * holds anything, and a recording that would split into one goes on in its file. For files that are
 * created from then on. */
TOLVEX_API int setOverwrite(void* recorder, bool overwrite);
/* Bytes that a file reserves for the groups that there are now, once each has a record. A split
 * size below it makes files of few records; a recording that splits so says it once in the
 * diagnostics. */
TOLVEX_API uint64_t getReservedSize(void* recorder);
/* Creates the file (an existing one is emptied) and starts recording; a recording under way is
 * finished first. A `startTime` of 0 means now. 1 when the file cannot be created, or is locked by
 * another recorder, of this process or another, that is recording into it. */
TOLVEX_API int startRecord(void* recorder, const char* path, uint64_t startTime);
/* Writes what is queued, completes the file and closes it. */
TOLVEX_API void stopRecord(void* recorder, uint64_t stopTime);
/* The most payload bytes of a recorded CAN frame, 8 to 64, others are brought into that range; 8
 * without this call. `busType` must be 0, CAN. Groups of frames that the file already has stay as
 * they are, and saveCanMessage refuses frames for them until their own size is set again. */
TOLVEX_API int createBusLogConfiguration(void* recorder, int busType, int maxDataLength);

/* Tasks that an asynchronous recorder has accepted and not yet written; 0 for any other. */
TOLVEX_API uint64_t getPendingTaskCount(void* recorder);
/* The count of pending tasks from which on an asynchronous recorder discards. */
TOLVEX_API uint32_t getMaxPendingTasks(void* recorder);
/* Of the current recording, or of the last after its end: records and frames that could not be
 * written, those that had been accepted included. What stopRecord could not write counts once it
 * has returned. */
TOLVEX_API uint64_t getLostRecordCount(void* recorder);
/* Copies the first failure of the current or last recording, at most `size` bytes with the NUL; ""
 * when there was none. Returns its whole length without the NUL, -1 for a null argument. */
TOLVEX_API int getRecorderError(void* recorder, char* text, int size);

/* ---------------------------------------------------------------------------------------------
 * CAN frames: into bus-log groups, which the recorder makes when they are needed. -1 too for a
 * frame that was discarded because the queue is full, or could not be written. */

/* `message` is a handle of MdfCanMessageInit, in C++ also a pointer to a tolvex::MdfCanMessage. */
TOLVEX_API int saveCanMessage(void* recorder, uint64_t timestamp, const void* message);
/* Records `message` as an error frame. */
TOLVEX_API int saveCanError(void* recorder, uint64_t timestamp, const void* message);
/* `error` points to a tolvex::MdfCanError. */
TOLVEX_API int saveCanErrorFromCanError(void* recorder, uint64_t timestamp, const void* error);

/* ---------------------------------------------------------------------------------------------
 * Data groups and records */

/* Adds a group with that comment (null or "": none) and gives its index, or -1. */
TOLVEX_API int addDataGroup(void* recorder, const char* name);
/* Adds the channel behind those that the group has. Refused are channels of type 1, names that the
 * group has, bit masks wider than the channel's bytes, and all channels once the group has had a
 * record. */
TOLVEX_API int addChannelToDG(void* recorder, int dgIndex, const void* channel);
/* A zeroed record with the channels that the group has now; null for an index without a group. */
TOLVEX_API void* allocRecord(void* recorder, int dgIndex);
/* Sets a channel's bytes, as they go into the file. Fewer than the channel has leave its other
 * bytes as they are; more zero it and give -1. */
TOLVEX_API int fillRecordData(void* record, const char* channelName, int size, const void* data);
TOLVEX_API void resetRecordData(void* record); /* zeroes it */
/* Records it, then zeroes it whatever came of it. A "time" channel holds seconds since the start
 * time as a float64. */
TOLVEX_API int insertRecordToDG(void* recorder, int dgIndex, void* record);
/* Always -1: it names no group. Leaves the record as it is. */
TOLVEX_API int insertData(void* recorder, void* record);
/* Records the bytes of a whole record at once, past the queue of an asynchronous recorder. */
TOLVEX_API int insertDataToDG(void* recorder, unsigned dgIndex, int size, const void* data);
TOLVEX_API void freeRecord(void* record);

/* ---------------------------------------------------------------------------------------------
 * Channels */

TOLVEX_API void* allocChannel(void); /* all zero and empty */
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
TOLVEX_API int setChannelParameter(void* channel, int paramId, int size, const void* data);
/* Gives the channel a copy of the formula: how raw values become physical ones. */
TOLVEX_API int setChannelFormula(void* channel, const void* formula);

/* ---------------------------------------------------------------------------------------------
 * Formulas: the conversions of the format, by kind (cc_type)
 *
 * 1 linear: offset, factor. 2 rational: six. 3 algebraic: a text. 4, 5 value to value, with and
 * without interpolation. 6 value range to value. 7 value to text. 8 value range to text. */

TOLVEX_API void* allocFormula(uint8_t kind); /* empty */
TOLVEX_API void freeFormula(void* formula);
/* Kinds 1, 2: replaces the parameters by the `size` bytes of doubles. Kind 3: the text at `data`.
 */
TOLVEX_API int setFormulaParam(void* formula, int size, const void* data);
/* Each appends one entry. */
TOLVEX_API int addFormulaParamN2N(void* formula, double key, double value);
TOLVEX_API int addFormulaParamN2T(void* formula, double key, const char* text);
TOLVEX_API int addFormulaParamR2N(void* formula, double min, double max, double value);
TOLVEX_API int addFormulaParamR2T(void* formula, double min, double max, const char* text);
/* What applies when no entry does. Kind 6: the double at `data`. Kinds 7, 8: the text at `data`. */
TOLVEX_API int setFormulaParamDefault(void* formula, int size, const void* data);

/* ---------------------------------------------------------------------------------------------
 * CAN frame handles */

TOLVEX_API void* MdfCanMessageInit(void); /* all zero */
/* Frees the handle. A payload that was set is not freed with it. */
TOLVEX_API void MdfCanMessageUnInit(void* message);

/* The identifier with the extended flag in bit 31. Setting a value above 0x7FF sets the flag. */
TOLVEX_API uint32_t MdfCanMessageGetMessageId(const void* message);
TOLVEX_API void MdfCanMessageSetMessageId(void* message, uint32_t messageId);
/* The identifier without the flag. */
TOLVEX_API uint32_t MdfCanMessageGetCanId(const void* message);
TOLVEX_API bool MdfCanMessageGetExtendedId(const void* message);
TOLVEX_API void MdfCanMessageSetExtendedId(void* message, bool extended);
/* The data length code, 0..15; the payload follows it. -1 for a code above 15. */
TOLVEX_API uint8_t MdfCanMessageGetDlc(const void* message);
TOLVEX_API int MdfCanMessageSetDlc(void* message, uint8_t dlc);
/* Payload bytes that the code stands for. Setting takes the smallest code that holds `length`;
 * above 64 means 8. */
TOLVEX_API uint32_t MdfCanMessageGetDataLength(const void* message);
TOLVEX_API void MdfCanMessageSetDataLength(void* message, uint32_t length);
/* Copies the payload into `bytes`, which has room for 64, unless it is null. Returns its size. */
TOLVEX_API uint32_t MdfCanMessageGetDataBytes(const void* message, uint8_t* bytes);
TOLVEX_API void MdfCanMessageSetDataBytes(void* message, const uint8_t* bytes, uint32_t count);
TOLVEX_API uint64_t MdfCanMessageGetDataIndex(const void* message);
TOLVEX_API void MdfCanMessageSetDataIndex(void* message, uint64_t index);
TOLVEX_API bool MdfCanMessageGetDir(const void* message); /* true: transmitted */
TOLVEX_API void MdfCanMessageSetDir(void* message, bool dir);
TOLVEX_API bool MdfCanMessageGetSrr(const void* message);
TOLVEX_API void MdfCanMessageSetSrr(void* message, bool srr);
TOLVEX_API bool MdfCanMessageGetEdl(const void* message); /* true: CAN FD */
TOLVEX_API void MdfCanMessageSetEdl(void* message, bool edl);
TOLVEX_API bool MdfCanMessageGetBrs(const void* message);
TOLVEX_API void MdfCanMessageSetBrs(void* message, bool brs);
TOLVEX_API bool MdfCanMessageGetEsi(const void* message);
TOLVEX_API void MdfCanMessageSetEsi(void* message, bool esi);
TOLVEX_API bool MdfCanMessageGetRtr(const void* message); /* true: remote frame */
TOLVEX_API void MdfCanMessageSetRtr(void* message, bool rtr);
TOLVEX_API bool MdfCanMessageGetWakeUp(const void* message);
TOLVEX_API void MdfCanMessageSetWakeUp(void* message, bool wakeUp);
TOLVEX_API bool MdfCanMessageGetSingleWire(const void* message);
TOLVEX_API void MdfCanMessageSetSingleWire(void* message, bool singleWire);
TOLVEX_API uint8_t MdfCanMessageGetBusChannel(const void* message);
TOLVEX_API void MdfCanMessageSetBusChannel(void* message, uint8_t busChannel);
TOLVEX_API uint8_t MdfCanMessageGetBitPosition(const void* message);
TOLVEX_API void MdfCanMessageSetBitPosition(void* message, uint8_t bitPosition);
TOLVEX_API uint8_t MdfCanMessageGetErrorType(const void* message); /* a CanErrorType */
TOLVEX_API void MdfCanMessageSetErrorType(void* message, uint8_t errorType);

#ifdef __cplusplus
}
#endif

#endif
