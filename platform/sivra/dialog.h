// One dialog as its subscriber sees it (RFC 3261 §12): who talks to whom, in which order, by which
// way.
//
// Thread safety: none; the I/O thread has it. What throws (std::bad_alloc) leaves a dialog that is
// only fit to be dropped.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "nsip/nsip.h"

namespace sivra {

class Dialog {
 public:
  // Both are addresses of record; the first request is for the URI of `to`, and goes there.
  Dialog(std::unique_ptr<nsip_from> from, std::unique_ptr<nsip_to> to);
  Dialog(const Dialog&) = delete;
  Dialog& operator=(const Dialog&) = delete;

  // The requests that are to make the dialog go there first (RFC 3261 §8.1.2); its own route set
  // takes the place of it.
  void SetFirstRouter(std::unique_ptr<nsip_uri> router);
  // Draws Call-ID and local tag. false: no random numbers to be had.
  [[nodiscard]] bool Identify();
  [[nodiscard]] const std::string& call_id() const { return form_.call_id; }
  [[nodiscard]] bool established() const { return !remote_tag_.empty(); }

  // The next request within the dialog, or the one that is to make it: all that the dialog settles
  // (RFC 3261 §12.2.1.1), with the next CSeq number.
  [[nodiscard]] std::unique_ptr<nsip_message> MakeRequest(std::string_view method);

  // Whether a message from the other side belongs here: our tag, and theirs once it is known.
  [[nodiscard]] bool Owns(const nsip_message& message) const;
  // Takes the dialog's other half from an answer or a request that it owns and that has their tag:
  // the first one makes it, later ones move its target (RFC 3261 §12.1, §12.2.2, RFC 6665 §4.4.1).
  // The message's Record-Routes are taken out of it.
  void Learn(nsip_message& message);
  // RFC 3261 §12.2.2: a request older than one that has been seen.
  [[nodiscard]] bool IsStale(const nsip_message& request) const;

 private:
  void SetTarget(const nsip_uri& target);

  nsip_message form_;  // what all requests have in common
  std::string remote_tag_;
  std::uint32_t local_cseq_ = 0;
  std::uint32_t remote_cseq_ = 0;
  bool strict_ = false;  // the first router is none of RFC 3261's
};

}  // namespace sivra
