#include "PlainCaller.h"

#include <string.h>
#include <tolvex/MdfEngine.h>

static void count(void* user, const char* text) {
  DiagnosticCount* counted = user;
  const size_t length = strlen(text);
  ++counted->texts;
  if (length == 0 || text[length - 1] != '\n') ++counted->unterminated;
}

void countDiagnostics(DiagnosticCount* counted) {
  setDiagnosticHandler(count, counted);
}

void dropDiagnostics(void) {
  setDiagnosticHandler(NULL, NULL);
}

static int addChannel(void* recorder, int group, const char* name, uint8_t type, uint8_t dataType,
                      uint32_t bytes) {
  const uint8_t sync = type == 2 ? 1 : 0;
  void* channel = allocChannel();
  int failed = 0;
  failed += setChannelParameter(channel, MDF_CHANNEL_TYPE, sizeof type, &type) != 0;
  failed += setChannelParameter(channel, MDF_CHANNEL_SYNC_TYPE, sizeof sync, &sync) != 0;
  failed += setChannelParameter(channel, MDF_CHANNEL_NAME, 0, name) != 0;
  failed += setChannelParameter(channel, MDF_CHANNEL_DATA_TYPE, sizeof dataType, &dataType) != 0;
  failed += setChannelParameter(channel, MDF_CHANNEL_BYTE_COUNT, sizeof bytes, &bytes) != 0;
  failed += addChannelToDG(recorder, group, channel) != 0;
  freeChannel(channel);
  return failed;
}

int recordRamp(const char* path, uint64_t startTime, bool async) {
  void* recorder = createRecorder(async);
  void* message = MdfCanMessageInit();
  int failed = startRecord(recorder, path, startTime) != 0;
  const int group = addDataGroup(recorder, "ramp");
  failed += addChannel(recorder, group, "time", 2, 4, sizeof(double));
  failed += addChannel(recorder, group, "value", 0, 0, sizeof(uint32_t));
  void* record = allocRecord(recorder, group);
  for (uint32_t i = 0; i < kRampRecords; ++i) {
    const double time = i;
    const uint32_t value = 3 * i;
    failed += fillRecordData(record, "time", sizeof time, &time) != 0;
    failed += fillRecordData(record, "value", sizeof value, &value) != 0;
    failed += insertRecordToDG(recorder, group, record) != 0;
    MdfCanMessageSetMessageId(message, i);
    failed += saveCanMessage(recorder, startTime + UINT64_C(1000000) * i, message) != 0;
  }
  stopRecord(recorder, 0);
  failed += getLostRecordCount(recorder) != 0 || getPendingTaskCount(recorder) != 0;
  freeRecord(record);
  MdfCanMessageUnInit(message);
  deleteRecorder(recorder);
  return failed;
}
