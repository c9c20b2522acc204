#include "ColumnCaller.h"

#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tolvex/MdfColumns.h>

#include "PlainCaller.h"

static int failures;

static void expect(int isSo, const char* what, int line) {
  if (isSo) return;
  ++failures;
  fprintf(stderr, "ColumnCaller.c, %d: not so: %s\n", line, what);
}
#define EXPECT(condition) expect(condition, #condition, __LINE__)

static void readTargets(tolvex_reader* reader, tolvex_place value) {
  static uint32_t exact[kRampRecords];
  static double doubles[kRampRecords];
  static double seconds[kRampRecords];
  static int64_t nanoseconds[kRampRecords];
  uint8_t validity[kRampRecords / 8 + 1] = {0};
  const tolvex_target targets[] = {
      {.size = sizeof *targets, .values = exact, .channel = value.channel},
      {.size = sizeof *targets,
       .values = doubles,
       .validity = validity,
       .channel = value.channel,
       .doubles = 1}};
  static double along[kRampRecords];
  const tolvex_read_options options = {
      .size = sizeof options, .seconds = along, .raw = 1, .threads = 2};
  uint64_t rows = 0;
  EXPECT(tolvex_reader_read(reader, value.group, targets, 2, 10, UINT64_MAX, &options, &rows) ==
         TOLVEX_OK);
  EXPECT(rows == kRampRecords - 10 && along[5] == 15);
  for (uint64_t i = 0; i < rows; ++i) {
    EXPECT(exact[i] == 3 * (i + 10) && doubles[i] == (double)exact[i]);
    EXPECT((validity[i / 8] >> i % 8 & 1) == 1);
  }
  EXPECT(tolvex_reader_seconds(reader, value.group, 0, kRampRecords, seconds, &rows) == TOLVEX_OK);
  EXPECT(tolvex_reader_nanoseconds(reader, value.group, 0, kRampRecords, nanoseconds, &rows) ==
         TOLVEX_OK);
  EXPECT(rows == kRampRecords && seconds[7] == 7);
  EXPECT(nanoseconds[7] - nanoseconds[0] == INT64_C(7000000000) &&
         nanoseconds[7] != TOLVEX_NO_TIME);
}

static void readColumns(tolvex_reader* reader, tolvex_place value) {
  const int32_t channels[] = {0, value.channel};
  tolvex_column* columns[] = {NULL, NULL};
  tolvex_values values = {.size = sizeof values};
  EXPECT(tolvex_reader_columns(reader, value.group, channels, 2, 100, 5, NULL, columns) ==
         TOLVEX_OK);
  EXPECT(tolvex_column_values(columns[1], &values) == TOLVEX_OK);
  EXPECT(values.rows == 5 && values.elements == 1 && values.type == TOLVEX_UINT32);
  EXPECT(values.width == 4 && values.validity == NULL && values.text_count == 0);
  EXPECT(((const uint32_t*)values.data)[4] == 312);
  tolvex_column_free(columns[0]);
  tolvex_column_free(columns[1]);
}

static void readStream(tolvex_reader* reader, tolvex_place value, struct ArrowArrayStream* stream) {
  const tolvex_stream_options options = {.size = sizeof options,
                                         .channels = &value.channel,
                                         .channel_count = 1,
                                         .batch_rows = 400,
                                         .time = TOLVEX_TIME_NANOSECONDS};
  struct ArrowSchema schema;
  EXPECT(tolvex_reader_stream(reader, value.group, &options, stream) == TOLVEX_OK);
  EXPECT(stream->get_schema(stream, &schema) == 0);
  EXPECT(schema.n_children == 2 && strcmp(schema.children[0]->format, "tsn:UTC") == 0);
  EXPECT(strcmp(schema.children[1]->format, "I") == 0);
  schema.release(&schema);
}

/* The stream goes on without its reader. */
static void drain(struct ArrowArrayStream* stream) {
  uint64_t next = 0;
  for (;;) {
    struct ArrowArray batch;
    EXPECT(stream->get_next(stream, &batch) == 0 && stream->get_last_error(stream) == NULL);
    if (batch.release == NULL) break;
    const uint32_t* numbers = batch.children[1]->buffers[1];
    for (int64_t i = 0; i < batch.length; ++i) EXPECT(numbers[i] == 3 * next++);
    batch.release(&batch);
  }
  EXPECT(next == kRampRecords);
  stream->release(stream);
}

static void readFrames(const char* path) {
  tolvex_frames* frames = NULL;
  tolvex_frame_log log = {.size = sizeof log};
  tolvex_frame_group group = {.size = sizeof group};
  tolvex_frame_filter filter = {.size = sizeof filter};
  tolvex_frame_batch batch = {.size = sizeof batch};
  int64_t times[1] = {0};
  int64_t offsets[2] = {7, 7};
  uint8_t payloads[64];
  uint64_t read = 0;
  const tolvex_frame_arrays arrays = {.size = sizeof arrays,
                                      .room = 1,
                                      .times = times,
                                      .offsets = offsets,
                                      .payloads = payloads,
                                      .payload_room = sizeof payloads};
  struct ArrowArrayStream stream;
  struct ArrowArray array;
  const char* const* texts = NULL;
  const uint32_t ids[] = {7, 1499, 5000};
  size_t count = 0;
  int64_t first = 0;
  int64_t last = 0;
  EXPECT(tolvex_frames_new(&frames) == TOLVEX_OK);
  EXPECT(tolvex_frames_open(frames, &path, 1) == TOLVEX_OK);
  EXPECT(tolvex_frames_log(frames, &log) == TOLVEX_OK && log.group_count >= 1);
  EXPECT(tolvex_frames_group(frames, 0, &group) == TOLVEX_OK && group.is_read == 1);
  EXPECT(tolvex_frames_time_range(frames, &first, &last) == TOLVEX_OK);
  EXPECT(first == log.start_time_ns && last - first == INT64_C(1499000000000));
  EXPECT(tolvex_frames_next(frames, 5000, &batch) == TOLVEX_OK && batch.count == kRampRecords);
  EXPECT(tolvex_save_frames(NULL, &batch, &read, NULL, 0) == TOLVEX_ERROR_ARGUMENT);
  EXPECT(batch.ids[12] == 12 && batch.kinds[12] == TOLVEX_FRAME_DATA && batch.error_count == 0);
  filter.ids = ids;
  filter.id_count = 3;
  filter.start_ns = last;
  filter.has_start = 1;
  EXPECT(tolvex_frames_select(frames, &filter) == TOLVEX_OK);
  EXPECT(tolvex_frames_next(frames, 10, &batch) == TOLVEX_OK);
  EXPECT(batch.count == 1 && batch.ids[0] == 1499 && batch.times[0] == last);
  EXPECT(tolvex_frames_next(frames, 10, &batch) == TOLVEX_OK && batch.count == 0);
  filter.has_start = 0;
  EXPECT(tolvex_frames_select(frames, &filter) == TOLVEX_OK);
  EXPECT(tolvex_frames_read(frames, &arrays, &read) == TOLVEX_OK && read == 1);
  EXPECT(tolvex_frames_read(frames, &arrays, &read) == TOLVEX_OK && read == 1);
  EXPECT(times[0] == last && offsets[0] == 0 && offsets[1] == 0);
  EXPECT(tolvex_frames_stream(frames, &filter, 0, &stream) == TOLVEX_OK);
  EXPECT(tolvex_frames_problems(frames, &texts, &count) == TOLVEX_OK && count == 0);
  EXPECT(tolvex_frames_notices(frames, &texts, &count) == TOLVEX_OK && count == 0);
  EXPECT(tolvex_frames_open_parts(frames, path) == TOLVEX_OK);
  EXPECT(strcmp(tolvex_frames_error(frames), "") == 0);
  tolvex_frames_close(frames);
  tolvex_frames_free(frames);
  EXPECT(stream.get_next(&stream, &array) == 0 && array.length == 2);
  EXPECT(((const uint32_t*)array.children[1]->buffers[1])[1] == 1499);
  stream.release(&stream);
  array.release(&array);
}

int readRamp(const char* path) {
  tolvex_reader* reader = NULL;
  struct ArrowArrayStream stream;
  tolvex_recording recording = {.size = sizeof recording};
  tolvex_group group = {.size = sizeof group};
  tolvex_channel channel = {.size = sizeof channel};
  tolvex_place value = {-1, -1};
  const char* const* problems = NULL;
  size_t count = 0;
  failures = 0;
  EXPECT(tolvex_reader_new(&reader) == TOLVEX_OK);
  EXPECT(tolvex_reader_open(reader, &path, 1) == TOLVEX_OK);
  EXPECT(strcmp(tolvex_reader_error(reader), "") == 0);
  EXPECT(tolvex_reader_problems(reader, &problems, &count) == TOLVEX_OK && count == 0);
  EXPECT(tolvex_reader_notices(reader, &problems, &count) == TOLVEX_OK && count == 0);
  EXPECT(tolvex_reader_recording(reader, &recording) == TOLVEX_OK);
  EXPECT(recording.version == 410 && recording.group_count == 4);
  EXPECT(tolvex_reader_find(reader, "value", &value, 1, &count) == TOLVEX_OK && count == 1);
  EXPECT(tolvex_reader_match(reader, "V?l*", 1, &value, 1, &count) == TOLVEX_OK && count == 1);
  EXPECT(tolvex_reader_group(reader, value.group, &group) == TOLVEX_OK);
  EXPECT(group.rows == kRampRecords && group.master == 0 && group.channel_count == 2);
  EXPECT(tolvex_reader_channel(reader, value.group, value.channel, &channel) == TOLVEX_OK);
  EXPECT(strcmp(channel.name, "value") == 0 && channel.type == TOLVEX_UINT32);
  EXPECT(channel.elements == 1 && channel.dimensions == 0 && channel.bit_count == 32);
  readTargets(reader, value);
  readColumns(reader, value);
  readStream(reader, value, &stream);
  EXPECT(tolvex_reader_open_parts(reader, path) == TOLVEX_OK);
  tolvex_reader_close(reader);
  EXPECT(tolvex_reader_recording(reader, &recording) == TOLVEX_ERROR_ARGUMENT);
  tolvex_reader_free(reader);
  drain(&stream);
  readFrames(path);
  return failures;
}

/* Ends an operation when it is called for the second time. */
static int32_t stopSecond(void* user, uint64_t done, uint64_t total) {
  EXPECT(done <= total);
  return ++*(int*)user == 2;
}

static int32_t askedNow(void* user) {
  ++*(int*)user;
  return 1;
}

int checkRamp(const char* path, const char* recovered) {
  char error[100] = "x";
  tolvex_summary file = {.size = sizeof file};
  tolvex_check* check = NULL;
  tolvex_check_summary found = {.size = sizeof found};
  tolvex_recovery* recovery = NULL;
  tolvex_recovery_summary summary = {.size = sizeof summary};
  tolvex_recovered_group group = {.size = sizeof group};
  int calls = 0;
  tolvex_recover_options options = {.size = sizeof options, .user = &calls, .verify = 1};
  uint64_t rows = 0;
  failures = 0;
  EXPECT(tolvex_summarize_file(path, &file, error, sizeof error) == TOLVEX_OK);
  EXPECT(file.frames == kRampRecords && file.records == 2 * kRampRecords + 2 && error[0] == 0);
  EXPECT(tolvex_check_file(path, NULL, NULL, &check) == TOLVEX_OK);
  EXPECT(tolvex_check_get_summary(check, &found) == TOLVEX_OK);
  EXPECT(strcmp(found.failure, "") == 0 && found.errors == 0 && found.finding_count == 0);
  tolvex_check_free(check);
  calls = 1;
  EXPECT(tolvex_check_file(path, stopSecond, &calls, &check) == TOLVEX_ERROR_CANCELLED);
  tolvex_check_free(check);

  EXPECT(tolvex_recover_file(path, recovered, &options, &recovery) == TOLVEX_OK);
  EXPECT(tolvex_recovery_get_summary(recovery, &summary) == TOLVEX_OK);
  EXPECT(summary.lossless == 1 && summary.loss_count == 0 && strcmp(summary.failure, "") == 0);
  for (uint64_t i = 0; i < summary.group_count; ++i) {
    EXPECT(tolvex_recovery_get_group(recovery, i, &group) == TOLVEX_OK);
    if (strcmp(group.name, "ramp") == 0) rows = group.rows;
    EXPECT(group.lost_rows == 0 && group.loss_count == 0);
  }
  EXPECT(rows == kRampRecords);
  EXPECT(tolvex_recovery_get_group(recovery, summary.group_count, &group) == TOLVEX_ERROR_ARGUMENT);
  tolvex_recovery_free(recovery);

  calls = 0;
  options.cancelled = askedNow;
  EXPECT(tolvex_recover_file(path, recovered, &options, &recovery) == TOLVEX_ERROR_CANCELLED);
  EXPECT(calls > 0);
  tolvex_recovery_free(recovery);
  options.cancelled = NULL;
  options.max_output = 1;
  EXPECT(tolvex_recover_file(path, recovered, &options, &recovery) == TOLVEX_ERROR_FILE);
  EXPECT(tolvex_recovery_get_summary(recovery, &summary) == TOLVEX_OK && summary.beyond_limit == 1);
  tolvex_recovery_free(recovery);
  return failures;
}
