// Frame handles, channels, formulas and records through the plain functions, each step held against
// a model.
#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Mdf4/Channel.h"
#include "Mdf4/Record.h"
#include "fuzz/FuzzInput.h"
#include "tolvex/Mdf4.h"
#include "tolvex/MdfEngine.h"

namespace tolvex::fuzz {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kMostBytesOfChannel = 100;
constexpr std::array<std::uint32_t, 16> kLengths = {0, 1,  2,  3,  4,  5,  6,  7,
                                                    8, 12, 16, 20, 24, 32, 48, 64};

std::uint8_t codeOf(std::uint32_t length) {
  const auto* const code = std::lower_bound(kLengths.begin(), kLengths.end(), length);
  return static_cast<std::uint8_t>(code == kLengths.end() ? 8 : code - kLengths.begin());
}

// ---------------------------------------------------------------------------------------------
// Frames

struct Flag {
  bool (*get)(const void* message);
  void (*set)(void* message, bool value);
};
constexpr Flag kFlags[] = {
    {MdfCanMessageGetDir, MdfCanMessageSetDir},
    {MdfCanMessageGetSrr, MdfCanMessageSetSrr},
    {MdfCanMessageGetEdl, MdfCanMessageSetEdl},
    {MdfCanMessageGetBrs, MdfCanMessageSetBrs},
    {MdfCanMessageGetEsi, MdfCanMessageSetEsi},
    {MdfCanMessageGetRtr, MdfCanMessageSetRtr},
    {MdfCanMessageGetWakeUp, MdfCanMessageSetWakeUp},
    {MdfCanMessageGetSingleWire, MdfCanMessageSetSingleWire},
};

class Frame {
 public:
  Frame() : handle_(MdfCanMessageInit()) {}
  Frame(const Frame&) = delete;
  Frame& operator=(const Frame&) = delete;
  ~Frame() {
    static_cast<MdfCanMessage*>(handle_)->~MdfCanMessage();  // the handle's end leaves the payload
    MdfCanMessageUnInit(handle_);
  }

  void change(Numbers& input) {
    const auto what = input.next<std::uint8_t>();
    switch (what % 8) {
      case 0:
        id_ = input.next<std::uint32_t>();
        MdfCanMessageSetMessageId(handle_, id_);
        if (id_ > 0x7FF) id_ |= kExtended;
        break;
      case 1: {
        const bool extended = input.flag();
        MdfCanMessageSetExtendedId(handle_, extended);
        id_ = extended ? id_ | kExtended : id_ & ~kExtended;
        break;
      }
      case 2: {
        const auto dlc = input.next<std::uint8_t>();
        const bool known = dlc < kLengths.size();
        require(MdfCanMessageSetDlc(handle_, dlc) == (known ? 0 : -1), "a code has 4 bits");
        if (known) resize(dlc);
        break;
      }
      case 3: {
        const std::uint32_t length = input.next<std::uint8_t>();
        MdfCanMessageSetDataLength(handle_, length);
        resize(codeOf(length));
        break;
      }
      case 4: {
        const ByteSpan bytes = input.take(input.next<std::uint8_t>() % 80);
        MdfCanMessageSetDataBytes(handle_, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
        if (bytes.data() == nullptr && !bytes.empty()) break;
        payload_.assign(bytes.begin(), bytes.end());
        resize(codeOf(static_cast<std::uint32_t>(bytes.size())));
        break;
      }
      case 5: {
        const std::size_t number = what / 8 % std::size(kFlags);
        flags_[number] = input.flag();
        kFlags[number].set(handle_, flags_[number]);
        break;
      }
      case 6:
        index_ = input.next<std::uint64_t>();
        MdfCanMessageSetDataIndex(handle_, index_);
        break;
      default:
        bytes_ = {input.next<std::uint8_t>(), input.next<std::uint8_t>(),
                  input.next<std::uint8_t>()};
        MdfCanMessageSetBusChannel(handle_, bytes_[0]);
        MdfCanMessageSetBitPosition(handle_, bytes_[1]);
        MdfCanMessageSetErrorType(handle_, bytes_[2]);
    }
  }

  void expectAsTold() const {
    require(MdfCanMessageGetMessageId(handle_) == id_, "an identifier is as it was set");
    require(MdfCanMessageGetCanId(handle_) == (id_ & ~kExtended), "the number of an identifier");
    require(MdfCanMessageGetExtendedId(handle_) == ((id_ & kExtended) != 0), "its length");
    require(MdfCanMessageGetDlc(handle_) == dlc_, "a data length code is as it was set");
    require(MdfCanMessageGetDataLength(handle_) == kLengths[dlc_], "what the code stands for");
    std::uint8_t payload[64];
    const std::uint32_t size = MdfCanMessageGetDataBytes(handle_, payload);
    require(size == payload_.size() && std::equal(payload_.begin(), payload_.end(), payload),
            "a payload is as it was set");
    for (std::size_t i = 0; i < std::size(kFlags); ++i) {
      require(kFlags[i].get(handle_) == flags_[i], "a flag is as it was set");
    }
    require(MdfCanMessageGetDataIndex(handle_) == index_, "an index is as it was set");
    require(MdfCanMessageGetBusChannel(handle_) == bytes_[0] &&
                MdfCanMessageGetBitPosition(handle_) == bytes_[1] &&
                MdfCanMessageGetErrorType(handle_) == bytes_[2],
            "a number is as it was set");
  }

 private:
  static constexpr std::uint32_t kExtended = 0x80000000;

  void resize(std::uint8_t dlc) {
    dlc_ = dlc;
    payload_.resize(kLengths[dlc]);
  }

  void* handle_;
  std::uint32_t id_ = 0;
  std::uint8_t dlc_ = 0;
  Bytes payload_;
  std::array<bool, std::size(kFlags)> flags_ = {};
  std::uint64_t index_ = 0;
  std::array<std::uint8_t, 3> bytes_ = {};
};

// ---------------------------------------------------------------------------------------------
// Formulas

bool same(double a, double b) {
  return a == b || (std::isnan(a) && std::isnan(b));
}

using Formulas = std::unique_ptr<void, void (*)(void*)>;

Formulas formulaFrom(Numbers& input) {
  const auto kind = static_cast<std::uint8_t>(input.next<std::uint8_t>() % 12);
  Formulas handle(allocFormula(kind), freeFormula);
  std::vector<double> parameters;
  std::vector<std::string> texts;
  for (unsigned entries = input.next<std::uint8_t>() % 4; entries > 0; --entries) {
    const auto key = input.next<float>();
    const auto end = input.next<float>();
    parameters.push_back(key);
    switch (input.next<std::uint8_t>() % 4) {
      case 0:
        parameters.push_back(end);
        addFormulaParamN2N(handle.get(), key, end);
        break;
      case 1:
        texts.push_back(input.text());
        addFormulaParamN2T(handle.get(), key, texts.back().c_str());
        break;
      case 2:
        parameters.insert(parameters.end(), {end, key});
        addFormulaParamR2N(handle.get(), key, end, key);
        break;
      default:
        parameters.push_back(end);
        texts.push_back(input.text());
        addFormulaParamR2T(handle.get(), key, end, texts.back().c_str());
    }
  }
  double numbers[9];
  for (double& number : numbers) number = input.next<std::uint8_t>();
  const int size = input.next<std::uint8_t>() % 80;
  const bool isText = kind == 3;
  const std::string text = input.text();
  const bool takesNumbers = (kind == 1 || kind == 2) && size % 8 == 0;
  const int result = isText ? setFormulaParam(handle.get(), 0, text.c_str())
                            : setFormulaParam(handle.get(), std::min(size, 72), numbers);
  require((result == 0) ==
              (isText || (takesNumbers && size <= 72) || ((kind == 1 || kind == 2) && size > 72)),
          "kinds 1 to 3 take parameters");
  if (takesNumbers && size <= 72) parameters.assign(numbers, numbers + size / 8);
  if ((kind == 1 || kind == 2) && size > 72) parameters.assign(numbers, numbers + 9);
  const bool hasDefault = kind >= 6 && kind <= 8;
  const void* const standard = kind == 6 ? static_cast<const void*>(numbers) : text.c_str();
  require(setFormulaParamDefault(handle.get(), 8, standard) == (hasDefault ? 0 : -1),
          "kinds 6 to 8 have a default");

  const auto& formula = *static_cast<const Formula*>(handle.get());
  require(std::equal(formula.parameters.begin(), formula.parameters.end(), parameters.begin(),
                     parameters.end(), same) &&
              formula.texts == texts,
          "a formula holds its entries");
  require(formula.formulaText == (isText ? text : ""), "a formula of kind 3 has its text");
  require(kind != 6 || formula.defaultValue == numbers[0], "a formula has its default");
  require(formula.defaultText == (kind == 7 || kind == 8 ? text : ""), "a formula has its default");
  return handle;
}

// ---------------------------------------------------------------------------------------------
// Channels and records

// Where a channel's bytes stand, and what is known of them.
struct Place {
  std::string name;
  std::size_t offset;
  std::size_t size;
  std::uint8_t type;
  std::uint8_t valueType;
  std::uint64_t mask;
};

const Place* find(const std::vector<Place>& places, std::string_view name) {
  const auto found = std::find_if(places.begin(), places.end(),
                                  [&](const Place& place) { return place.name == name; });
  return found == places.end() ? nullptr : &*found;
}

// A channel whose name is new, as a group asks for.
void addChannel(Numbers& input, RecordLayout& layout, std::vector<Place>& places) {
  const std::unique_ptr<void, void (*)(void*)> handle(allocChannel(), freeChannel);
  Place place = {input.text(),
                 layout.size(),
                 input.next<std::uint16_t>() % kMostBytesOfChannel,
                 static_cast<std::uint8_t>(input.next<std::uint8_t>() % 4),
                 input.next<std::uint8_t>(),
                 0};
  if (input.flag()) place.mask = input.next<std::uint64_t>();
  const auto set = [&](int parameter, auto value) {
    return setChannelParameter(handle.get(), parameter, sizeof value, &value);
  };
  for (const int text : {MDF_CHANNEL_NAME, MDF_CHANNEL_UNIT, MDF_CHANNEL_COMMENT}) {
    setChannelParameter(handle.get(), text, 0, place.name.c_str());
  }
  set(MDF_CHANNEL_TYPE, place.type);
  set(MDF_CHANNEL_VALUE_TYPE, place.valueType);
  set(MDF_CHANNEL_SYNC_TYPE, place.valueType);
  set(MDF_CHANNEL_DATA_TYPE, place.valueType);
  set(MDF_CHANNEL_BYTE_COUNT, static_cast<std::uint32_t>(place.size));
  set(MDF_CHANNEL_BIT_MASK, place.mask);
  const auto limit = input.next<double>();
  set(MDF_CHANNEL_LIMIT_MIN, limit);
  set(MDF_CHANNEL_LIMIT_MAX, -limit);
  const int unknown = input.next<std::uint8_t>();
  for (const int parameter : {-1 - unknown, MDF_CHANNEL_BIT_MASK + 1 + unknown}) {
    require(set(parameter, limit) == -1, "a parameter that there is not is refused");
  }
  if (input.flag()) {
    const Formulas formula = formulaFrom(input);
    require(setChannelFormula(handle.get(), formula.get()) == 0, "any formula is taken");
  }
  auto& channel = *static_cast<ChannelInfo*>(handle.get());
  require(channel.name == place.name && channel.unit == place.name && channel.comment == place.name,
          "a channel has its texts");
  require(same(channel.limitMin, limit) && same(channel.limitMax, -limit),
          "a channel has its limits");
  channel.byteOffset = static_cast<std::uint32_t>(place.offset);
  if (find(places, place.name) != nullptr) return;
  layout.add(channel);
  places.push_back(place);
}

// Gives whether the bytes are taken.
bool fillByHand(Bytes& record, const Place& place, ByteSpan value) {
  constexpr std::size_t kWidest = 8;
  if (place.type == 1) return false;
  if (value.empty()) return true;
  const auto at = record.begin() + static_cast<std::ptrdiff_t>(place.offset);
  if (value.size() > place.size) {
    std::fill_n(at, place.size, std::uint8_t{0});
    return false;
  }
  if (place.mask == 0 || place.size > kWidest) {
    std::copy(value.begin(), value.end(), at);
    return true;
  }
  const bool turned = place.valueType == 1 || place.valueType == 3;
  for (std::size_t i = 0; i < place.size; ++i) {
    const std::uint8_t byte = i >= value.size() ? std::uint8_t{0}
                              : turned          ? value[value.size() - 1 - i]
                                                : value[i];
    at[static_cast<std::ptrdiff_t>(i)] = byte & static_cast<std::uint8_t>(place.mask >> 8 * i);
  }
  return true;
}

void fillRecords(Numbers& input) {
  const auto layout = std::make_shared<RecordLayout>();
  std::vector<Place> places;
  for (unsigned count = input.next<std::uint8_t>() % 5; count > 0; --count) {
    addChannel(input, *layout, places);
  }
  const auto record = std::make_unique<RecordData>(layout);
  Bytes expected(record->size());
  for (unsigned count = input.next<std::uint8_t>() % 8; count > 0; --count) {
    const std::size_t number = input.next<std::uint8_t>();
    const std::string name = number < places.size() ? places[number].name : input.text();
    const ByteSpan value = input.take(input.next<std::uint8_t>());
    const Place* const place = find(places, name);
    const bool taken = place != nullptr && fillByHand(expected, *place, value);
    require(fillRecordData(record.get(), name.c_str(), static_cast<int>(value.size()),
                           value.data()) == (taken ? 0 : -1),
            "a channel's bytes are taken or not");
    require(std::equal(expected.begin(), expected.end(), record->data()),
            "a record has the bytes that were put in");
  }
  resetRecordData(record.get());
  require(std::count(record->data(), record->data() + record->size(), 0) ==
              static_cast<std::ptrdiff_t>(record->size()),
          "a reset record is zero");
}

}  // namespace
}  // namespace tolvex::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tolvex::fuzz;
  Numbers input({data, size});
  Frame frame;
  for (unsigned steps = input.next<std::uint8_t>() % 16; steps > 0; --steps) {
    frame.change(input);
    frame.expectAsTold();
  }
  if (!input.rest().empty()) fillRecords(input);
  return 0;
}
