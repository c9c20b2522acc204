/* Lists what a recording holds, or prints a signal: time in seconds and value, or text, per line.
 *
 *   read_columns FILE [CHANNEL]
 */
#include <inttypes.h>
#include <stdio.h>
#include <tolvex/MdfColumns.h>
#include <tolvex/MdfEngine.h>

enum { kRows = 4096 }; /* read at a time */

/* Whether the call was made; else says what went wrong. */
static int succeeded(const tolvex_reader* reader, tolvex_status status) {
  if (status == TOLVEX_OK) return 1;
  fprintf(stderr, "read_columns: %s\n", tolvex_reader_error(reader));
  return 0;
}

static int list(tolvex_reader* reader) {
  tolvex_recording recording = {.size = sizeof recording};
  if (!succeeded(reader, tolvex_reader_recording(reader, &recording))) return 1;
  for (uint32_t g = 0; g < recording.group_count; ++g) {
    tolvex_group group = {.size = sizeof group};
    if (!succeeded(reader, tolvex_reader_group(reader, (int32_t)g, &group))) return 1;
    printf("group %" PRIu32 " \"%s\", %" PRIu64 " rows\n", g, group.name, group.rows);
    for (uint32_t c = 0; c < group.channel_count; ++c) {
      tolvex_channel channel = {.size = sizeof channel};
      if (!succeeded(reader, tolvex_reader_channel(reader, (int32_t)g, (int32_t)c, &channel))) {
        return 1;
      }
      printf("  %s [%s] %s\n", channel.name, channel.unit, channel.fault);
    }
  }
  return 0;
}

/* The value as a text, where it has one. */
static int printText(const tolvex_values* values, uint64_t row) {
  if (values->type == TOLVEX_DICTIONARY) {
    const int32_t code = ((const int32_t*)values->data)[row];
    if (code >= 0) return printf("%s\n", values->texts[code]);
  } else if (values->type == TOLVEX_TEXT) {
    const int64_t* at = values->offsets + row;
    return printf("%.*s\n", (int)(at[1] - at[0]), (const char*)values->data + at[0]);
  }
  return 0;
}

/* Rows from `first` on; -1 when something went wrong. */
static int64_t printRows(tolvex_reader* reader, tolvex_place place, const tolvex_channel* channel,
                         uint64_t first) {
  double seconds[kRows];
  double numbers[kRows];
  const tolvex_read_options options = {.size = sizeof options, .seconds = seconds};
  const tolvex_target target = {
      .size = sizeof target, .values = numbers, .channel = place.channel, .doubles = 1};
  tolvex_column* column = NULL;
  tolvex_values values = {.size = sizeof values};
  uint64_t rows = 0;
  if (!succeeded(reader, tolvex_reader_columns(reader, place.group, &place.channel, 1, first, kRows,
                                               &options, &column))) {
    return -1;
  }
  int ok = tolvex_column_values(column, &values) == TOLVEX_OK;
  if (ok && channel->type != TOLVEX_TEXT) { /* texts may stand for numbers too */
    ok = succeeded(reader,
                   tolvex_reader_read(reader, place.group, &target, 1, first, kRows, NULL, &rows));
  }
  for (uint64_t row = 0; ok && row < values.rows; ++row) {
    if (values.validity != NULL && (values.validity[row / 8] >> row % 8 & 1) == 0) continue;
    printf("%.12g ", seconds[row]);
    if (printText(&values, row) <= 0) printf("%.12g %s\n", numbers[row], channel->unit);
  }
  tolvex_column_free(column);
  return ok ? (int64_t)values.rows : -1;
}

static int print(tolvex_reader* reader, const char* name) {
  tolvex_place place;
  tolvex_channel channel = {.size = sizeof channel};
  size_t found = 0;
  if (!succeeded(reader, tolvex_reader_find(reader, name, &place, 1, &found))) return 1;
  if (found == 0) {
    fprintf(stderr, "read_columns: no channel %s\n", name);
    return 1;
  }
  if (!succeeded(reader, tolvex_reader_channel(reader, place.group, place.channel, &channel))) {
    return 1;
  }
  if (channel.elements != 1 || channel.type == TOLVEX_BYTES || channel.type == TOLVEX_NONE) {
    fprintf(stderr, "read_columns: %s has no single values %s\n", name, channel.fault);
    return 1;
  }
  int64_t rows = kRows;
  for (uint64_t first = 0; rows == kRows; first += kRows) {
    rows = printRows(reader, place, &channel, first);
  }
  return rows < 0 ? 1 : 0;
}

int main(int argc, char** argv) {
  if (argc != 2 && argc != 3) {
    fprintf(stderr, "usage: read_columns FILE [CHANNEL]\n");
    return 2;
  }
  setDiagnosticHandler(NULL, NULL); /* the library's own texts would mix with the results */
  tolvex_reader* reader = NULL;
  const char* const path = argv[1];
  int result = 1;
  if (tolvex_reader_new(&reader) != TOLVEX_OK ||
      tolvex_reader_open(reader, &path, 1) != TOLVEX_OK) {
    fprintf(stderr, "read_columns: %s: %s\n", path, tolvex_reader_error(reader));
  } else {
    result = argc == 3 ? print(reader, argv[2]) : list(reader);
  }
  tolvex_reader_free(reader);
  return result;
}
