// What a signal reader and its copies share behind their interface: the streams of the open file.
#pragma once

#include <list>
#include <map>
#include <memory>
#include <unordered_map>
#include <utility>

#include "Mdf4/base/Mutex.h"
#include "Mdf4/format/m4DataStream.h"
#include "Mdf4/model/RecordCursor.h"
#include "Mdf4/reader/ChannelDescription.h"
#include "Mdf4/reader/ReaderState.h"

namespace tolvex {

// The records of one channel group.
struct GroupRecords {
  int dg;
  int cg;
  RecordCursor cursor;

  // The next record, or nothing when the data end before it does.
  ByteSpan next() {
    const ByteSpan record = cursor.next();
    return record.size() == cursor.recordSize() ? record : ByteSpan();
  }
};

struct SignalStreams {
  bool readAllGroups = false;
  // Changed by open alone.
  std::unordered_map<const m4Block*, ChannelTexts> texts;  // by channel
  Mutex mutex;  // the file's, too, while records are read
  std::map<std::pair<int, int>, GroupRecords> records TOLVEX_GUARDED_BY(mutex);  // by (dg, cg)
  // Of variable-length channels.
  std::map<const m4Block*, m4DataStream> values TOLVEX_GUARDED_BY(mutex);
  std::list<m4DataStream*> recent TOLVEX_GUARDED_BY(mutex);  // last read first

  // What a copy of a reader begins with, as ReaderState::forCopy.
  static std::shared_ptr<SignalStreams> forCopy(const std::shared_ptr<SignalStreams>& streams,
                                                const ReaderState& state);
  // Opens the records of all groups that are read, and learns what describes the channels.
  void open(ReaderState& state) TOLVEX_REQUIRES(mutex);
  void clear() TOLVEX_REQUIRES(mutex);
  // The records of (dg, cg), of the first group of dg when cg is negative; null when there are none
  // or the file is closed.
  GroupRecords* find(int dg, int cg) TOLVEX_REQUIRES(mutex);
  // Before a stream is read: what the others that were read lately hold in memory is kept up to a
  // limit.
  void touch(m4DataStream& stream) TOLVEX_REQUIRES(mutex);
  // The values of a channel of variable length.
  m4DataStream& valuesOf(ReaderState& state, const M4CNBlock& channel) TOLVEX_REQUIRES(mutex);
  // False when the channel is null or was not there when the file was opened.
  bool describe(ReaderState& state, const m4Block* channel, Tables tables, MdfSigCCInfo& out) const;
};

}  // namespace tolvex
