// The CDDB socket protocol (TCP, port 8880 by default): one command line at a
// time, each answered by a three-digit status code, the rest of its line and,
// for lists and entries, a body that ends with a "." line.
#pragma once

#include <string>
#include <vector>

#include "cddb/command_channel.h"
#include "dischive/cddb.h"

namespace dischive::detail {

class CddbpConnection {
 public:
  /// The answer buffer: longer bodies are cut there.
  static constexpr size_t kBodyCapacity = 32678;

  /// Connects and reads the banner; a code outside the 200s fails with
  /// kCddbpConnectRefused. Throws ProtocolError.
  void Connect(const std::string& server, uint16_t port);
  /// "cddb hello user host DiscHive major.minor"; kCddbpHelloRefused outside the 200s.
  void Hello(const std::string& user, const std::string& host);
  /// "proto N"; the answer is not examined.
  void SetProto(int level);
  /// "cddb query ..."; a QueryOutcome, kCddbpQueryRefused outside the 200s.
  int Query(const DiscToc& toc, std::vector<FreedbMatch>& matches, size_t capacity);
  /// "cddb read category discid" into `map`: kCddbpReadRefused outside the
  /// 200s, kFreedbServiceError for a body without a line end or an entry the
  /// parser rejects.
  void Read(const std::string& category, uint32_t disc_id, XmcdKeywordMap& map);
  void Quit();
  void Close();

  /// Answers of level 6 are UTF-8, of lower levels ISO-8859-1.
  void set_text_level(int level) { text_level_ = level; }
  /// True after a body was cut at the buffer's end (the rest of it is still
  /// coming) or a receive failed: the connection must be made anew.
  bool out_of_step() const { return out_of_step_; }
  CommandChannel& channel() { return channel_; }

 private:
  // Three bytes: the first a digit 1-5, the second 0-3, the third a digit.
  int ReadCode();
  std::string ReadBody(CommandChannel::BodyEnd end);

  CommandChannel channel_;
  int text_level_ = kDefaultFreedbProto;
  bool out_of_step_ = false;
};

}  // namespace dischive::detail
