/* Plain functions of tolvex that read, for any language that can call C: columns of signals, CAN
 * frames, both as streams of Arrow arrays too, the summary, the check and the recovery of files.
 * Recording is in tolvex/MdfEngine.h, but for CAN frames by column; the C++ classes behind these
 * functions are in tolvex/MdfColumnReader.h, tolvex/MdfFrameReader.h and tolvex/MdfRecovery.h.
 *
 *   tolvex_reader* reader = NULL;
 *   const char* path = "drive.mf4";
 *   if (tolvex_reader_new(&reader) != TOLVEX_OK) return 1;
 *   if (tolvex_reader_open(reader, &path, 1) != TOLVEX_OK) {
 *     fprintf(stderr, "%s\n", tolvex_reader_error(reader));
 *   }
 *   tolvex_place place;
 *   size_t found = 0;
 *   tolvex_reader_find(reader, "EngineSpeed", &place, 1, &found);
 *   if (found != 0) {
 *     double speed[1000];
 *     uint64_t rows = 0;
 *     const tolvex_target target = {sizeof target, speed, NULL, place.channel, 1};
 *     tolvex_reader_read(reader, place.group, &target, 1, 0, 1000, NULL, &rows);
 *   }
 *   tolvex_reader_free(reader);
 *
 * Handles are pointers to opaque structs. Each comes from the function that makes it and is freed
 * by the one that is named with it; freeing null does nothing. There is no limit to their number
 * and nothing that they share: a handle is used by one thread at a time, different ones by any
 * number of threads at once.
 *
 * Functions return TOLVEX_OK or one of the errors below, and then leave what they should have
 * filled as it was unless they say otherwise; the handle's error text says what, where, expected
 * and found. Nothing is thrown. Texts are NUL-terminated UTF-8, never null. The library's
 * diagnostics, which say nothing else, go where setDiagnosticHandler (tolvex/MdfEngine.h) sends
 * them.
 *
 * Structs begin with their own size in bytes, which the caller sets before each call; what a
 * function fills, it leaves at the bytes that it has filled. So a library that knows more members
 * or fewer works with each program: new ones come at the end, and those of options mean what they
 * always did when they are zero. All options are zero by default, and a null pointer to them stands
 * for that.
 *
 * Rows are records of a channel group, counted from 0. */
#ifndef TOLVEX_MDF_COLUMNS_H
#define TOLVEX_MDF_COLUMNS_H

#include <stddef.h>
#include <stdint.h>

#include "tolvex/MdfArrow.h"
#include "tolvex/MdfExport.h"
#include "tolvex/MdfVersion.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t tolvex_status;
enum {
  TOLVEX_OK = 0,
  TOLVEX_ERROR_MEMORY = 1,    /* there is none left */
  TOLVEX_ERROR_ARGUMENT = 2,  /* a null pointer, a struct without its size, no such group, channel
                                 or file that is open */
  TOLVEX_ERROR_FILE = 3,      /* it cannot be opened, read or written, or is no measurement file */
  TOLVEX_ERROR_TYPE = 4,      /* the values are not of a kind that the function can give */
  TOLVEX_ERROR_CANCELLED = 5, /* a callback ended it */
  TOLVEX_ERROR_OTHER = 6      /* the system refused something else, e.g. a thread */
};

/* ---------------------------------------------------------------------------------------------
 * Opening a recording */

typedef struct tolvex_reader tolvex_reader;

/* A reader without a file. TOLVEX_ERROR_MEMORY leaves *reader null. */
TOLVEX_API tolvex_status tolvex_reader_new(tolvex_reader** reader);
/* Closes and frees it. Its columns and streams live on. */
TOLVEX_API void tolvex_reader_free(tolvex_reader* reader);

/* Opens a file, or several as one recording, in the order of their start times: groups of the same
 * name and layout become one. What was open before is closed, also on failure. */
TOLVEX_API tolvex_status tolvex_reader_open(tolvex_reader* reader, const char* const* paths,
                                            size_t count);
/* Opens a recording that was split, given its first file: with drive.mf4 also drive_1.mf4, ..
 * drive_10.mf4, as far as they are there. */
TOLVEX_API tolvex_status tolvex_reader_open_parts(tolvex_reader* reader, const char* path);
TOLVEX_API void tolvex_reader_close(tolvex_reader* reader);

/* What failed last with this reader; "" when nothing did. Until the next call with it. */
TOLVEX_API const char* tolvex_reader_error(const tolvex_reader* reader);
/* What is damaged or was left out so far, and what an unusual file was taken for: an array of
 * `count` texts, valid until the next call of this function, or until the reader is opened, closed
 * or freed. */
TOLVEX_API tolvex_status tolvex_reader_problems(tolvex_reader* reader, const char* const** texts,
                                                size_t* count);

/* Of them, what unusual files were taken for: nothing is lost by that. Likewise. */
TOLVEX_API tolvex_status tolvex_reader_notices(tolvex_reader* reader, const char* const** texts,
                                               size_t* count);

/* Texts in these structs last until the reader is opened, closed or freed. */
typedef struct tolvex_recording {
  size_t size;
  const char* program; /* that wrote the file */
  const char* comment;
  /* When it started: nanoseconds since 1970-01-01 00:00, in UTC, or in the time of a place that the
   * file does not tell (start_is_local). */
  int64_t start_time_ns;
  uint32_t version;           /* e.g. 410 */
  uint32_t group_count;       /* groups are counted from 0 */
  int32_t start_is_local;     /* 1, or 0 */
  int32_t utc_offset_minutes; /* of the clocks there; 0: or not told */
} tolvex_recording;

typedef struct tolvex_group {
  size_t size;
  const char* name; /* the acquisition name */
  const char* comment;
  const char* source_name;
  const char* source_path;
  uint64_t rows;          /* that are there, whatever the file states */
  uint32_t channel_count; /* channels are counted from 0 */
  int32_t master;         /* the channel that its rows rise by; -1: none */
} tolvex_group;

/* What values are. Integers and floats have the narrowest type that holds all values of their
 * channel exactly. */
enum {
  TOLVEX_NONE = 0, /* there are no values: tolvex_channel.fault says why */
  TOLVEX_INT8 = 1,
  TOLVEX_INT16 = 2,
  TOLVEX_INT32 = 3,
  TOLVEX_INT64 = 4,
  TOLVEX_UINT8 = 5,
  TOLVEX_UINT16 = 6,
  TOLVEX_UINT32 = 7,
  TOLVEX_UINT64 = 8,
  TOLVEX_FLOAT32 = 9,
  TOLVEX_FLOAT64 = 10,
  TOLVEX_TEXT = 11,
  TOLVEX_BYTES = 12,     /* as they stand in the file */
  TOLVEX_DICTIONARY = 13 /* texts that recur: an int32 for each value counts them */
};

/* A channel, or a member of a structure. */
typedef struct tolvex_channel {
  size_t size;
  const char* name; /* with the names of the structures around it: "CAN_DataFrame.ID" */
  const char* unit; /* of the physical values */
  const char* comment;
  const char* source_name;
  const char* source_path;
  const char* conversion_name;
  const char* fault; /* why it has no physical values; "" when it has */
  /* Of an array: elements by dimension, the outermost first. A complex number counts as one more
   * dimension, of 2: its real and its imaginary part. */
  const uint64_t* shape;
  uint64_t dimensions;   /* 0: single values */
  uint64_t elements;     /* of a row; 1 in single values */
  uint32_t type;         /* of the physical values: TOLVEX_INT8, ... */
  uint32_t raw_type;     /* before the conversion */
  int32_t parent;        /* the channel that it is a member of; -1: none */
  uint32_t bit_count;    /* cn_bit_count */
  uint32_t conversion;   /* cc_type, 0: none; see tolvex/MdfSignals.h */
  uint32_t channel_type; /* cn_type */
  uint32_t sync_type;    /* cn_sync_type: 1 time, 2 angle, 3 distance, 4 index */
  uint32_t data_type;    /* cn_data_type */
  int32_t gives_numbers; /* 1: of a dictionary, some values may be numbers instead of texts */
  uint32_t reserved;     /* 0 */
} tolvex_channel;

TOLVEX_API tolvex_status tolvex_reader_recording(tolvex_reader* reader,
                                                 tolvex_recording* recording);
TOLVEX_API tolvex_status tolvex_reader_group(tolvex_reader* reader, int32_t group,
                                             tolvex_group* description);
TOLVEX_API tolvex_status tolvex_reader_channel(tolvex_reader* reader, int32_t group,
                                               int32_t channel, tolvex_channel* description);

/* Where a channel is. Never gets another member. */
typedef struct tolvex_place {
  int32_t group;
  int32_t channel;
} tolvex_place;

/* The channels of that name, by group and channel: how many there are in *found, the first of them,
 * as far as there is room for them, in `places`. */
TOLVEX_API tolvex_status tolvex_reader_find(tolvex_reader* reader, const char* name,
                                            tolvex_place* places, size_t room, size_t* found);
/* Likewise the channels whose name fits a pattern: '*' stands for any characters, '?' for one,
 * "[a-z]" for one of a set, "[!a-z]" for any other; "[*]" is a '*'. `ignore_case` 1: the letters A
 * to Z are those in lower case, too. */
TOLVEX_API tolvex_status tolvex_reader_match(tolvex_reader* reader, const char* pattern,
                                             int32_t ignore_case, tolvex_place* places, size_t room,
                                             size_t* found);

/* ---------------------------------------------------------------------------------------------
 * Reading columns
 *
 * Rows `first` .. `first + count` of a group, as far as they are there. Values in damaged parts of
 * the file are not valid. A call may take as much as the whole group; whoever prints or sums takes
 * some 65,536 rows at a time. Pointers to memory for no rows may be null. */

typedef struct tolvex_read_options {
  size_t size;
  /* Room for the times of the rows, which are read along with their values as by the functions
   * below: it costs less than reading them apart. Null: not wanted. */
  double* seconds;
  int64_t* nanoseconds;
  int32_t raw;      /* 1: the values before their conversion */
  uint32_t threads; /* that share the work, where there is much of it; 0: the caller's alone */
} tolvex_read_options;

/* Memory of the caller's for the values of one channel. */
typedef struct tolvex_target {
  size_t size;
  /* Room for as many values as there are rows to be read, times the elements of an array: of the
   * channel's type (raw_type with raw values), or doubles. Aligned for it. */
  void* values;
  /* Room for a bit for each of them, in whole bytes, the lowest bit of a byte first: 1 where there
   * is a valid value. Null: not wanted. */
  uint8_t* validity;
  int32_t channel;
  /* 1: each value as a double, rounded to the nearest where it has more than 53 bits, NaN where
   * there is none; of a dictionary the numbers. */
  int32_t doubles;
} tolvex_target;

/* Channels of one group into the caller's memory: how many rows in *rows. TOLVEX_ERROR_TYPE for
 * texts, bytes and, unless as doubles, dictionaries, for channels without values, and for times
 * that the group does not have; nothing is read then. After another error the memory may hold
 * anything. */
TOLVEX_API tolvex_status tolvex_reader_read(tolvex_reader* reader, int32_t group,
                                            const tolvex_target* targets, size_t target_count,
                                            uint64_t first, uint64_t count,
                                            const tolvex_read_options* options, uint64_t* rows);

/* A row that has no time, in nanoseconds. */
#define TOLVEX_NO_TIME INT64_MIN

/* The times of rows, as the group's master has them: seconds since the recording's start, NaN where
 * there is none; or nanoseconds since 1970-01-01 00:00, exact where the file is. There is room for
 * `count` of them. TOLVEX_ERROR_TYPE when the group has no master of time. */
TOLVEX_API tolvex_status tolvex_reader_seconds(tolvex_reader* reader, int32_t group, uint64_t first,
                                               uint64_t count, double* seconds, uint64_t* rows);
TOLVEX_API tolvex_status tolvex_reader_nanoseconds(tolvex_reader* reader, int32_t group,
                                                   uint64_t first, uint64_t count,
                                                   int64_t* nanoseconds, uint64_t* rows);

/* Values of one channel in memory of their own, of any type. Does not need the reader. */
typedef struct tolvex_column tolvex_column;

/* Columns of channels of one group, one each in `columns`, to be freed by tolvex_column_free. */
TOLVEX_API tolvex_status tolvex_reader_columns(tolvex_reader* reader, int32_t group,
                                               const int32_t* channels, size_t channel_count,
                                               uint64_t first, uint64_t count,
                                               const tolvex_read_options* options,
                                               tolvex_column** columns);
TOLVEX_API void tolvex_column_free(tolvex_column* column);

/* What a column holds, until it is freed. There are rows times elements values. */
typedef struct tolvex_values {
  size_t size;
  uint64_t rows;
  uint64_t elements; /* of a row; more than 1 in arrays */
  /* Numbers, or the codes of a dictionary (-1: none), row by row; of texts and bytes what they are
   * made of, back to back and without NULs in between. */
  const void* data;
  /* Of texts and bytes: where in `data` each value begins, and behind the last one its end. */
  const int64_t* offsets;
  const uint8_t* validity;  /* as tolvex_target.validity; null: all values are valid */
  const char* const* texts; /* of a dictionary, by code */
  uint64_t text_count;
  /* Of a dictionary: for values that are numbers the number, else NaN; null when none is one. A
   * value is valid when it has a text or a number. */
  const double* numbers;
  uint32_t type;  /* TOLVEX_INT8, ... */
  uint32_t width; /* bytes of a number or code in `data`; 0: texts, bytes, or none */
} tolvex_values;

TOLVEX_API tolvex_status tolvex_column_values(const tolvex_column* column, tolvex_values* values);

/* ---------------------------------------------------------------------------------------------
 * Streams of Arrow arrays */

/* What the time of a row becomes. */
enum {
  TOLVEX_TIME_AS_CHANNEL = 0, /* the master is a channel like the others */
  /* The first column, under the master's name and in the place of it: */
  TOLVEX_TIME_SECONDS = 1,    /* float64 since the start of the recording */
  TOLVEX_TIME_NANOSECONDS = 2 /* timestamps in nanoseconds: UTC, or without a zone when the
                                 recording's start is local */
};

typedef struct tolvex_stream_options {
  size_t size;
  const int32_t* channels; /* null: all that have values, but for structures, whose members count */
  size_t channel_count;
  uint64_t first_row;
  uint64_t row_count;  /* 0: all from the first on */
  uint64_t batch_rows; /* 0: as many as take 8 MiB, at most 65,536 */
  uint32_t time;       /* TOLVEX_TIME_AS_CHANNEL, ... */
  int32_t raw;         /* as in tolvex_read_options */
  uint32_t threads;    /* likewise */
  uint32_t reserved;   /* 0 */
} tolvex_stream_options;

/* Channels of one group as a stream of record batches, for whatever takes that interface. `stream`
 * is overwritten, and is the caller's to release. It needs no reader: that may be freed, closed or
 * opened anew before the stream is used. A stream may be used on another thread than its reader,
 * and several streams of one reader on a thread each; they take turns.
 *
 * A record batch is a struct with a column for each channel: int8 .. uint64, float32, float64,
 * large_utf8, large_binary; all may have nulls. Unit and comment are in the metadata of the field,
 * name and comment of the group in those of the schema.
 * - An array is a fixed_size_list for each dimension, in each other.
 * - Texts that recur are a dictionary of large_utf8 with int32 indices. Each batch has the texts of
 *   those before it and its own: an index means the same in the whole stream. (A channel that has
 *   more than 65,536 texts begins anew with the next batch.)
 * - Where a conversion that gives texts may give numbers too (gives_numbers), a column `name`.value
 *   of float64 follows that has them, and null for texts.
 * - A channel without values is left out; chosen by number it is a column of nulls ("n"). Why is in
 *   the metadata, as `left_out` of the schema or `fault` of the field.
 * - A name that another column has already gets a number behind it: `speed`, `speed_2`.
 * The memory of an array is the column's own; it goes when the array is released. */
TOLVEX_API tolvex_status tolvex_reader_stream(tolvex_reader* reader, int32_t group,
                                              const tolvex_stream_options* options,
                                              struct ArrowArrayStream* stream);

/* For Python, where a stream is handed on in a PyCapsule "arrow_array_stream": memory for it,
 * without a stream yet, null without memory; `pointer_of` is PyCapsule_GetPointer. And the
 * destructor of that capsule, which releases the stream unless somebody took it, and frees its
 * memory: a function of Python's own cannot do that while an exception is on its way, or after the
 * interpreter's end. */
TOLVEX_API struct ArrowArrayStream* tolvex_capsule_stream(void* (*pointer_of)(void* capsule,
                                                                              const char* name));
TOLVEX_API void tolvex_capsule_free(void* capsule);

/* ---------------------------------------------------------------------------------------------
 * CAN frames
 *
 * Of bus logs, merged by time over all groups of one file or several: see tolvex/MdfFrameReader.h.
 */

typedef struct tolvex_frames tolvex_frames;

/* As the functions of tolvex_reader that are named alike. After TOLVEX_ERROR_MEMORY the files must
 * be opened again. */
TOLVEX_API tolvex_status tolvex_frames_new(tolvex_frames** frames);
TOLVEX_API void tolvex_frames_free(tolvex_frames* frames);
TOLVEX_API tolvex_status tolvex_frames_open(tolvex_frames* frames, const char* const* paths,
                                            size_t count);
TOLVEX_API tolvex_status tolvex_frames_open_parts(tolvex_frames* frames, const char* path);
TOLVEX_API void tolvex_frames_close(tolvex_frames* frames);
TOLVEX_API const char* tolvex_frames_error(const tolvex_frames* frames);
TOLVEX_API tolvex_status tolvex_frames_problems(tolvex_frames* frames, const char* const** texts,
                                                size_t* count);
TOLVEX_API tolvex_status tolvex_frames_notices(tolvex_frames* frames, const char* const** texts,
                                               size_t* count);

typedef struct tolvex_frame_log {
  size_t size;
  int64_t start_time_ns; /* as in tolvex_recording, likewise the next two */
  int32_t start_is_local;
  int32_t utc_offset_minutes;
  uint64_t group_count; /* of bus events, counted from 0 */
} tolvex_frame_log;

/* A channel group whose records are bus events. */
typedef struct tolvex_frame_group {
  size_t size;
  const char* name;     /* the acquisition name, else the comment; until opened, closed or freed */
  uint64_t stated_rows; /* by the file */
  uint64_t file;        /* in which of those opened it is, from 0 */
  int32_t data_group;
  int32_t channel_group;
  uint32_t is_read;  /* 1: they are CAN frames */
  uint32_t reserved; /* 0 */
} tolvex_frame_group;

TOLVEX_API tolvex_status tolvex_frames_log(tolvex_frames* frames, tolvex_frame_log* description);
TOLVEX_API tolvex_status tolvex_frames_group(tolvex_frames* frames, uint64_t index,
                                             tolvex_frame_group* group);
/* The times of the first frame and of the last one, as in batches; both TOLVEX_NO_TIME when there
 * are no frames. Goes along the whole of unsorted data groups; all frames are selected again. */
TOLVEX_API tolvex_status tolvex_frames_time_range(tolvex_frames* frames, int64_t* first,
                                                  int64_t* last);

/* Which frames are wanted; all zero: all. */
typedef struct tolvex_frame_filter {
  size_t size;
  const uint32_t* ids; /* standard and extended ones alike; null: all */
  size_t id_count;
  const uint16_t* buses; /* as the file numbers them; null: all */
  size_t bus_count;
  int64_t start_ns; /* from this time on, if has_start is 1 */
  int64_t end_ns;   /* up to, but not including it, if has_end is 1 */
  int32_t has_start;
  int32_t has_end;
} tolvex_frame_filter;

/* Values of tolvex_frame_batch.kinds. */
enum {
  TOLVEX_FRAME_DATA = 0,
  TOLVEX_FRAME_REMOTE = 1,
  TOLVEX_FRAME_ERROR = 2,
  TOLVEX_FRAME_FD_ERROR = 3
};

/* Bits of tolvex_frame_batch.flags. */
enum {
  TOLVEX_FRAME_TRANSMITTED = 0x001, /* else received */
  TOLVEX_FRAME_SRR = 0x002,
  TOLVEX_FRAME_FD = 0x004,  /* a frame of CAN FD */
  TOLVEX_FRAME_BRS = 0x008, /* bit rate switch */
  TOLVEX_FRAME_ESI = 0x010, /* error state indicator */
  TOLVEX_FRAME_WAKE_UP = 0x020,
  TOLVEX_FRAME_SINGLE_WIRE = 0x040,
  TOLVEX_FRAME_RTR = 0x080,
  TOLVEX_FRAME_EXTENDED = 0x100,       /* an identifier of 29 bits */
  TOLVEX_FRAME_PAYLOAD_MISSING = 0x200 /* the file has lost it; it is empty */
};

/* What error frames have beside other frames: 0 where their group has no such field. */
typedef struct tolvex_frame_error {
  uint64_t time_offset_brs;
  uint64_t time_offset_crc_del;
  uint64_t btr_ext_cfg;
  uint32_t crc;
  uint32_t error_flags;
  uint32_t data_length; /* as the record states it */
  uint8_t error_type;   /* tolvex::CanErrorType */
  uint8_t tec;          /* transmit error counter */
  uint8_t rec;          /* receive error counter */
  uint8_t reserved;     /* 0 */
} tolvex_frame_error;

/* Frames by column: `count` entries each, in order of time. */
typedef struct tolvex_frame_batch {
  size_t size;
  uint64_t count;
  const int64_t* times;      /* nanoseconds since 1970-01-01 00:00, as start_time_ns */
  const uint32_t* ids;       /* without the mark of an extended one */
  const uint16_t* buses;     /* as the file numbers them, mostly from 1 */
  const uint16_t* flags;     /* TOLVEX_FRAME_TRANSMITTED, ... */
  const uint8_t* directions; /* 0 received, 1 transmitted */
  const uint8_t* kinds;      /* TOLVEX_FRAME_DATA, ... */
  const uint8_t* dlcs;       /* data length codes */
  const uint64_t* rows;      /* of its record in its group */
  const int64_t* offsets;    /* where in `payloads` each begins, and behind the last one its end */
  const uint8_t* payloads;
  /* Of the error frames alone: which of the frames they are, ascending, and their fields, which lie
   * error_size bytes apart. */
  const size_t* error_frames;
  const tolvex_frame_error* errors;
  uint64_t error_count;
  uint64_t error_size;
} tolvex_frame_batch;

/* What follows begins with the first of the frames that are wanted; after opening these are all.
 * Null stands for all. A time range is looked up, not read up to, where records are sorted. */
TOLVEX_API tolvex_status tolvex_frames_select(tolvex_frames* frames,
                                              const tolvex_frame_filter* filter);
/* The next frames, at most `most` of them; count 0 at the end. The memory is the handle's own,
 * until it is used again. */
TOLVEX_API tolvex_status tolvex_frames_next(tolvex_frames* frames, size_t most,
                                            tolvex_frame_batch* batch);

/* Memory of the caller's for frames by column: room for `room` of them each; null: not wanted. The
 * members are those of tolvex_frame_batch. */
typedef struct tolvex_frame_arrays {
  size_t size;
  uint64_t room;
  int64_t* times;
  uint32_t* ids;
  uint16_t* buses;
  uint16_t* flags;
  uint8_t* dlcs;
  uint8_t* kinds;
  uint64_t* rows;
  int64_t* offsets;      /* room for one more */
  uint8_t* lengths;      /* bytes of each payload */
  uint8_t* payloads;     /* back to back, the first at offset 0; null exactly if the former are */
  uint64_t payload_room; /* bytes */
  uint32_t threads;      /* above 1: another one has memory at hand, where much is needed */
  uint32_t reserved;     /* 0 */
} tolvex_frame_arrays;

/* The next frames into the caller's memory: how many in *read, as many as there is room for. Those
 * that follow, in this function or in tolvex_frames_next, begin with the first for which there was
 * none. 0 at the end. TOLVEX_ERROR_ARGUMENT when there is not even room for the payload of one
 * frame: 64 bytes are enough. */
TOLVEX_API tolvex_status tolvex_frames_read(tolvex_frames* frames,
                                            const tolvex_frame_arrays* arrays, uint64_t* read);

/* The frames that are wanted as a stream of record batches of up to `batch_rows` (0: 65,536)
 * frames: time (timestamp in nanoseconds, as in tolvex_reader_stream), id (uint32), bus (uint16),
 * direction, kind, dlc (uint8), flags (uint16), data (large_binary, null where it is lost). Opens
 * the files anew, so the stream has nothing to do with its handle any more. */
TOLVEX_API tolvex_status tolvex_frames_stream(tolvex_frames* frames,
                                              const tolvex_frame_filter* filter,
                                              uint64_t batch_rows, struct ArrowArrayStream* stream);

/* ---------------------------------------------------------------------------------------------
 * Recording CAN frames
 *
 * By column, into a recorder of createRecorder (tolvex/MdfEngine.h), as saveCanMessage and
 * saveCanError do one by one; a batch that was read may be handed over as it is. */

/* Records frames, in their order: how many were accepted, from the first on, in *saved. TOLVEX_OK:
 * all; TOLVEX_ERROR_OTHER: fewer, since the queue is full or a write failed, which loses the
 * others; TOLVEX_ERROR_ARGUMENT: none, since one of them cannot be recorded as it is. `error` may
 * be null; the reason is put there, at most `error_size` bytes with the NUL, else "".
 *
 * Null may be: `buses` (all 1), `directions` (of the flags), `kinds` (data, or remote where the
 * flags say so), `dlcs` (the smallest codes), `flags` (CAN FD above 8 bytes of payload, extended
 * above 0x7FF), `rows`, and without an error_count the fields of errors; error frames that have
 * none get zeros. Times are recorded as precisely as seconds since the start can be in a float64:
 * they read back as the same nanoseconds within 26 days. A payload that is shorter than its code
 * says is followed by zeros; an error frame's type, and of CAN FD its direction, are in no record.
 *
 * Refused are: payloads that are missing, longer than their code says, or than the recorder is
 * configured for (createBusLogConfiguration; 64 bytes of CAN FD errors, 8 of others); remote frames
 * with a payload; times before the start; buses above 255; identifiers above 29 bits, of errors of
 * CAN FD above 24; fields of errors that are wider than in the record.
 *
 * An asynchronous recorder queues data and remote frames, in tasks of up to 512 that follow one
 * another, and writes error frames at once. */
TOLVEX_API tolvex_status tolvex_save_frames(void* recorder, const tolvex_frame_batch* frames,
                                            uint64_t* saved, char* error, size_t error_size);

/* ---------------------------------------------------------------------------------------------
 * Summary of a file */

typedef struct tolvex_summary {
  size_t size;
  uint64_t bytes;        /* of the file */
  int64_t start_time_ns; /* as in tolvex_recording, likewise start_is_local and the offset */
  /* Of the earliest record and of the latest one, as the first and last records of groups tell that
   * have their data group for themselves. TOLVEX_NO_TIME: there are none, or it is unknown. */
  int64_t first_time_ns;
  int64_t last_time_ns;
  /* As the file states them. Of a recording that was not finished, those of such groups that are
   * there; others count as far as the file states them. */
  uint64_t records;
  uint64_t frames;        /* of them: CAN frames */
  uint64_t problem_count; /* what is damaged; not to be finished is no damage */
  uint32_t version;
  uint32_t group_count;
  uint32_t channel_count;
  int32_t start_is_local;
  int32_t utc_offset_minutes;
  uint32_t is_finalized; /* 1; or 0: left by its logger before it was finished */
  char program[16];      /* that wrote the file, NUL-terminated */
} tolvex_summary;

/* What a file holds, from its headers: for tables of many files, by any number of threads. Reads
 * the lists of data blocks, but no data except those records. `error` may be null; why a file
 * cannot be opened is put there, at most `error_size` bytes with the NUL, else "". */
TOLVEX_API tolvex_status tolvex_summarize_file(const char* path, tolvex_summary* summary,
                                               char* error, size_t error_size);

/* ---------------------------------------------------------------------------------------------
 * Check and recovery
 *
 * As tolvex::checkFile and tolvex::recoverFile, which say more. Positions and sizes are bytes. */

/* Called periodically during long operations, on the thread that called the function, with the
 * bytes of the input that are done, and its size. Ends the operation unless it returns 0. */
typedef int32_t (*tolvex_progress)(void* user, uint64_t done, uint64_t total);

/* What was found in a file. */
typedef struct tolvex_check tolvex_check;

typedef struct tolvex_check_summary {
  size_t size;
  const char* failure; /* why the file could not be checked; "" when it was */
  uint64_t errors;
  uint64_t warnings;
  uint64_t finding_count; /* that can be asked for: the first 1000 */
} tolvex_check_summary;

typedef struct tolvex_finding {
  size_t size;
  uint64_t position; /* in the file: of the block or field in question */
  const char* what;
  const char* expected; /* "" where there is nothing to compare, likewise `found` */
  const char* found;
  uint32_t is_error; /* 1: data are lost or misread; 0: a warning */
  uint32_t reserved; /* 0 */
} tolvex_finding;

/* Checks a file against the format. `progress` may be null; `user` is handed on to it. There is a
 * *check whatever is returned, but for lack of memory and wrong arguments, which leave it null:
 * with TOLVEX_ERROR_FILE it says why the file could not be checked. What is wrong with a file is no
 * error of this function. */
TOLVEX_API tolvex_status tolvex_check_file(const char* path, tolvex_progress progress, void* user,
                                           tolvex_check** check);
TOLVEX_API void tolvex_check_free(tolvex_check* check);
/* Texts last until the check is freed. */
TOLVEX_API tolvex_status tolvex_check_get_summary(const tolvex_check* check,
                                                  tolvex_check_summary* summary);
TOLVEX_API tolvex_status tolvex_check_get_finding(const tolvex_check* check, uint64_t index,
                                                  tolvex_finding* finding);

typedef struct tolvex_recover_options {
  size_t size;
  tolvex_progress progress; /* may be null, likewise `cancelled` */
  /* Asked before every read and write, on the thread that called; ends the recovery unless it
   * returns 0. */
  int32_t (*cancelled)(void* user);
  void* user; /* handed on to both */
  /* The largest result in bytes; 0: 1,000 times the input's size, and at least 1 GiB. UINT64_MAX:
   * no limit. */
  uint64_t max_output;
  uint32_t verify;   /* 1: reads the result again and compares every record */
  uint32_t reserved; /* 0 */
} tolvex_recover_options;

/* What became of a file. */
typedef struct tolvex_recovery tolvex_recovery;

typedef struct tolvex_recovery_summary {
  size_t size;
  const char* failure;       /* why there is no result; "" when there is one */
  const char* const* losses; /* what concerns no single group, the first 100 texts of each */
  const char* const* repairs;
  uint64_t loss_count;
  uint64_t repair_count;
  uint64_t group_count;
  uint32_t lossless;     /* 1: there is a result that has everything */
  uint32_t beyond_limit; /* 1: it failed because the result would exceed max_output */
} tolvex_recovery_summary;

/* One channel group of a recovered file. */
typedef struct tolvex_recovered_group {
  size_t size;
  const char* name;          /* the acquisition name, else the comment, else "" */
  const char* const* losses; /* the first 100 texts of each */
  const char* const* repairs;
  uint64_t loss_count;
  uint64_t repair_count;
  uint64_t rows;         /* in the result */
  uint64_t found_blocks; /* data blocks that no list named and that hold some of them */
  uint64_t lost_rows;    /* that the result lacks, as far as they can be counted */
  int32_t data_group;    /* where it was in the input */
  int32_t channel_group;
} tolvex_recovered_group;

/* Writes everything recoverable from `input` into `output`, which is replaced if it exists and
 * cannot be the input. There is a *recovery as there is a *check above; with TOLVEX_ERROR_FILE and
 * TOLVEX_ERROR_CANCELLED there is no result, and a file that had the name is unchanged. */
TOLVEX_API tolvex_status tolvex_recover_file(const char* input, const char* output,
                                             const tolvex_recover_options* options,
                                             tolvex_recovery** recovery);
TOLVEX_API void tolvex_recovery_free(tolvex_recovery* recovery);
/* Texts last until the recovery is freed. */
TOLVEX_API tolvex_status tolvex_recovery_get_summary(const tolvex_recovery* recovery,
                                                     tolvex_recovery_summary* summary);
TOLVEX_API tolvex_status tolvex_recovery_get_group(const tolvex_recovery* recovery, uint64_t index,
                                                   tolvex_recovered_group* group);

#ifdef __cplusplus
}
#endif

#endif
