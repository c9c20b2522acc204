/* Records two groups of signals and three CAN frames into a new file.
 *
 *   record_signals FILE
 */
#include <stdio.h>
#include <string.h>
#include <tolvex/MdfEngine.h>

static const uint64_t kStart = 1700000000000000; /* microseconds: 2023-11-14 22:13:20 UTC */
static int failures = 0;

/* Names the call unless it gave 0. */
#define CHECK(call) ((call) == 0 ? (void)0 : (void)(++failures, fputs(#call " failed\n", stderr)))

/* Adds a channel; `dataType` is that of the format. Takes the formula, if any. */
static void addChannel(void* recorder, int group, const char* name, const char* unit,
                       uint8_t dataType, uint32_t bytes, void* formula) {
  const uint8_t isTime = strcmp(name, "time") == 0;
  const uint8_t type = isTime ? 2 : 0; /* the group's master, or a value */
  void* channel = allocChannel();
  CHECK(setChannelParameter(channel, MDF_CHANNEL_TYPE, 1, &type));
  CHECK(setChannelParameter(channel, MDF_CHANNEL_SYNC_TYPE, 1, &isTime));
  CHECK(setChannelParameter(channel, MDF_CHANNEL_NAME, 0, name));
  CHECK(setChannelParameter(channel, MDF_CHANNEL_UNIT, 0, unit));
  CHECK(setChannelParameter(channel, MDF_CHANNEL_DATA_TYPE, 1, &dataType));
  CHECK(setChannelParameter(channel, MDF_CHANNEL_BYTE_COUNT, 4, &bytes));
  if (formula != NULL) CHECK(setChannelFormula(channel, formula));
  CHECK(addChannelToDG(recorder, group, channel));
  freeFormula(formula);
  freeChannel(channel);
}

/* Speed in steps of 0.25 rpm, and gears that have names. */
static void recordEngine(void* recorder) {
  const int group = addDataGroup(recorder, "engine");
  const double offsetAndFactor[] = {0, 0.25};
  void* rpm = allocFormula(1);
  void* gears = allocFormula(7);
  CHECK(setFormulaParam(rpm, sizeof offsetAndFactor, offsetAndFactor));
  CHECK(addFormulaParamN2T(gears, 0, "neutral"));
  CHECK(addFormulaParamN2T(gears, 1, "first"));
  CHECK(setFormulaParamDefault(gears, 0, "unknown"));
  addChannel(recorder, group, "time", "s", 4, 8, NULL); /* float64 */
  addChannel(recorder, group, "speed", "rpm", 0, 2, rpm);
  addChannel(recorder, group, "gear", "", 0, 1, gears);
  void* record = allocRecord(recorder, group);
  for (uint8_t gear = 0; gear < 3; ++gear) {
    const double seconds = 0.5 * gear;
    const uint16_t speed = (uint16_t)(3200 + gear);
    CHECK(fillRecordData(record, "time", sizeof seconds, &seconds));
    CHECK(fillRecordData(record, "speed", sizeof speed, &speed));
    CHECK(fillRecordData(record, "gear", sizeof gear, &gear));
    CHECK(insertRecordToDG(recorder, group, record));
  }
  freeRecord(record);
}

/* The curve of a sensor: straight lines between three points. */
static void recordTank(void* recorder) {
  const int group = addDataGroup(recorder, "tank");
  void* litres = allocFormula(4);
  CHECK(addFormulaParamN2N(litres, -100, 0));
  CHECK(addFormulaParamN2N(litres, 0, 30));
  CHECK(addFormulaParamN2N(litres, 100, 40));
  addChannel(recorder, group, "time", "s", 4, 8, NULL);
  addChannel(recorder, group, "level", "l", 2, 2, litres);
  void* record = allocRecord(recorder, group);
  for (int16_t level = -50; level <= 50; level += 50) {
    const double seconds = 1 + 0.01 * level;
    CHECK(fillRecordData(record, "time", sizeof seconds, &seconds));
    CHECK(fillRecordData(record, "level", sizeof level, &level));
    CHECK(insertRecordToDG(recorder, group, record));
  }
  freeRecord(record);
}

static void recordFrames(void* recorder) {
  const uint8_t payload[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  void* message = MdfCanMessageInit();
  MdfCanMessageSetBusChannel(message, 1);
  MdfCanMessageSetMessageId(message, 0x123);
  MdfCanMessageSetDataBytes(message, payload, 3);
  CHECK(saveCanMessage(recorder, kStart + 250000, message));
  CHECK(saveCanError(recorder, kStart + 500000, message));
  MdfCanMessageSetMessageId(message, 0x1ABCDEF); /* an extended one, as it is above 0x7FF */
  MdfCanMessageSetEdl(message, true);            /* CAN FD, with bit rate switch */
  MdfCanMessageSetBrs(message, true);
  MdfCanMessageSetDataBytes(message, payload, 12);
  CHECK(saveCanMessage(recorder, kStart + 750000, message));
  MdfCanMessageUnInit(message);
}

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: record_signals FILE\n");
    return 2;
  }
  setDiagnosticHandler(NULL, NULL); /* the library's own texts would go to the standard output */
  void* recorder = createRecorder(false);
  CHECK(createBusLogConfiguration(recorder, 0, 64)); /* CAN, payloads of up to 64 bytes */
  if (startRecord(recorder, argv[1], kStart) == 0) {
    recordEngine(recorder);
    recordTank(recorder);
    recordFrames(recorder);
    stopRecord(recorder, kStart + 1000000);
  }
  char error[256]; /* what went wrong with the file, be it as late as in stopRecord */
  if (getRecorderError(recorder, error, sizeof error) != 0) {
    fprintf(stderr, "record_signals: %s\n", error);
    ++failures;
  }
  deleteRecorder(recorder);
  return failures == 0 ? 0 : 1;
}
