#include "framework/evbuffer_zero_copy_stream.h"

#include <algorithm>
#include <cassert>

// ---------------------------------------------------------------------------
// Input: one frame, read in place.
// ---------------------------------------------------------------------------

evbufferZeroCopyInputStream::evbufferZeroCopyInputStream(bufferevent* bev) : m_pBev(bev) {
  m_sVector[0].iov_base = nullptr;
  m_sVector[0].iov_len = 0;
}

evbufferZeroCopyInputStream::~evbufferZeroCopyInputStream() {
  evbuffer_drain(bufferevent_get_input(m_pBev), static_cast<size_t>(m_iPosition));
}

bool evbufferZeroCopyInputStream::Next(const void** data, int* size) {
  if (m_iPosition >= m_iLimit) return false;
  evbuffer* input = bufferevent_get_input(m_pBev);
  evbuffer_ptr at;
  if (evbuffer_ptr_set(input, &at, static_cast<size_t>(m_iPosition), EVBUFFER_PTR_SET) != 0) return false;
  ev_ssize_t wanted = m_iLimit - m_iPosition;
  if (evbuffer_peek(input, wanted, &at, m_sVector, 1) < 1) return false;
  int32_t length = static_cast<int32_t>(std::min<size_t>(static_cast<size_t>(wanted), m_sVector[0].iov_len));
  *data = m_sVector[0].iov_base;
  *size = length;
  m_iPosition += length;
  return true;
}

void evbufferZeroCopyInputStream::BackUp(int count) { m_iPosition -= count; }

bool evbufferZeroCopyInputStream::Skip(int count) {
  evbuffer* input = bufferevent_get_input(m_pBev);
  if (count < 0 || static_cast<size_t>(count) > evbuffer_get_length(input)) return false;
  evbuffer_drain(input, static_cast<size_t>(count));
  return true;
}

int64_t evbufferZeroCopyInputStream::ByteCount() const { return m_iPosition; }

// ---------------------------------------------------------------------------
// Output: reserved evbuffer space, committed block by block.
// ---------------------------------------------------------------------------

evbufferZeroCopyOutputStream::evbufferZeroCopyOutputStream() : m_pBuffer(evbuffer_new()) {
  for (evbuffer_iovec& vector : m_sPrevVector) {
    vector.iov_base = nullptr;
    vector.iov_len = 0;
  }
}

evbufferZeroCopyOutputStream::~evbufferZeroCopyOutputStream() { evbuffer_free(m_pBuffer); }

void evbufferZeroCopyOutputStream::CommitPending() {
  if (m_bPending && m_sPrevVector[0].iov_len != 0) evbuffer_commit_space(m_pBuffer, m_sPrevVector, 1);
  m_bPending = false;
}

bool evbufferZeroCopyOutputStream::Next(void** data, int* size) {
  CommitPending();
  if (evbuffer_reserve_space(m_pBuffer, kBlockSize, m_sPrevVector, 2) < 1) {
    m_sPrevVector[0].iov_len = 0;
    return false;
  }
  // Only the first vector is handed out; a second one, when libevent splits
  // the reservation, is simply not committed.
  m_bPending = true;
  m_i64ByteCount += static_cast<int64_t>(m_sPrevVector[0].iov_len);
  *data = m_sPrevVector[0].iov_base;
  *size = static_cast<int>(m_sPrevVector[0].iov_len);
  return true;
}

int64_t evbufferZeroCopyOutputStream::ByteCount() const { return m_i64ByteCount; }

evbuffer* evbufferZeroCopyOutputStream::Buffer() {
  CommitPending();
  return m_pBuffer;
}

// The serialiser calls BackUp once, at the end, with what it left unused of
// the last block. That tail is cut off the reservation and whatever remains
// is committed; a block backed up entirely is dropped without a commit, so
// the evbuffer never holds bytes that were handed out but not written.
// Backing up more than the last block held means the caller lost track of
// its buffers: the process stops rather than send a corrupt frame. The
// assertion stays on this line, so the text it dies with stays the same
// from build to build and the line an operator greps for stays valid
// ("evbuffer_zero_copy_stream.cpp:94").
void evbufferZeroCopyOutputStream::BackUp(int count) {
  assert((unsigned)count <= m_sPrevVector[0].iov_len);
  m_sPrevVector[0].iov_len -= static_cast<size_t>(count);
  m_bPending = false;
  if (m_sPrevVector[0].iov_len != 0) evbuffer_commit_space(m_pBuffer, m_sPrevVector, 1);
  m_i64ByteCount -= count;
}
