// Protobuf streams over libevent buffers, so that envelopes are parsed
// straight out of a connection's input and serialised straight into evbuffer
// space, without copying the payload. The frame is drawn in zelvar/frame.h.
//
// Both streams are stack objects of one call on the event-loop thread.
#ifndef OVITA2_AGENT_FRAMEWORK_EVBUFFER_ZERO_COPY_STREAM_H
#define OVITA2_AGENT_FRAMEWORK_EVBUFFER_ZERO_COPY_STREAM_H

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <google/protobuf/io/zero_copy_stream.h>

#include <cstdint>

// Reads one frame in place from the input buffer of a bufferevent (borrowed).
// Reading starts after the 4-byte prefix and stops at the limit the caller
// sets (N + 4). Nothing is drained while reading: the destructor drains as
// many bytes as were read, which after a complete parse is the whole frame,
// prefix included.
class evbufferZeroCopyInputStream : public google::protobuf::io::ZeroCopyInputStream {
 public:
  static constexpr int32_t kPrefixSize = 4;

  explicit evbufferZeroCopyInputStream(bufferevent* bev);
  ~evbufferZeroCopyInputStream() override;

  evbufferZeroCopyInputStream(const evbufferZeroCopyInputStream&) = delete;
  evbufferZeroCopyInputStream& operator=(const evbufferZeroCopyInputStream&) = delete;

  bool Next(const void** data, int* size) override;
  void BackUp(int count) override;
  // Drains `count` bytes from the front of the input at once and leaves the
  // read position where it was. The parser never skips inside a well-formed
  // envelope, so this only matters for a broken one, whose frame the host
  // drops with its connection anyway.
  bool Skip(int count) override;
  // The read position, prefix included.
  int64_t ByteCount() const override;

  void SetLimit(int32_t limit) { m_iLimit = limit; }

 private:
  bufferevent* m_pBev;
  evbuffer_iovec m_sVector[1];
  int32_t m_iPosition = kPrefixSize;
  int32_t m_iLimit = 0;
  [[maybe_unused]] bool m_bOpen = true;  // kept for layout; nothing reads it
};

// Serialises into a private evbuffer (owned) in reserved blocks of 128 KiB;
// Buffer() gives the evbuffer so that a sender moves it whole into a
// connection's output with evbuffer_add_buffer.
class evbufferZeroCopyOutputStream : public google::protobuf::io::ZeroCopyOutputStream {
 public:
  static constexpr size_t kBlockSize = 131072;

  evbufferZeroCopyOutputStream();
  ~evbufferZeroCopyOutputStream() override;

  evbufferZeroCopyOutputStream(const evbufferZeroCopyOutputStream&) = delete;
  evbufferZeroCopyOutputStream& operator=(const evbufferZeroCopyOutputStream&) = delete;

  bool Next(void** data, int* size) override;
  // Gives back the unused tail of the last block; more than that block held
  // is a broken caller and stops the process.
  void BackUp(int count) override;
  int64_t ByteCount() const override;

  // The serialised bytes. A last block that the serialiser filled exactly
  // (and so never backed up) is committed here first.
  evbuffer* Buffer();

 private:
  void CommitPending();

  evbuffer* m_pBuffer;
  evbuffer_iovec m_sPrevVector[2];
  int64_t m_i64ByteCount = 0;
  bool m_bPending = false;  // m_sPrevVector[0] is reserved, not yet committed
};

#endif  // OVITA2_AGENT_FRAMEWORK_EVBUFFER_ZERO_COPY_STREAM_H
