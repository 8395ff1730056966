#include "services/subscription/reginfo_sequence.h"

#include <algorithm>
#include <array>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "base/text.h"
#include "Domletlib/Domletlib.h"
#include "nsip/nsip.h"
#include "services/subscription/reginfo_document.h"
#include "services/subscription/text_edits.h"

namespace subscription {
namespace {

constexpr std::string_view kTerminated = "terminated";

// An addr-spec, or a name-addr, which some registrars put into <uri>.
std::optional<nsip_uri> ReadUri(std::string_view text) {
  if (text.find('<') != std::string_view::npos) {
    nsip_from address;
    if (!nsip_from_parse(text, address)) return std::nullopt;
    return std::move(*address.url);
  }
  nsip_uri uri;
  if (!nsip_uri_parse(text, uri)) return std::nullopt;
  return uri;
}

// Of two addresses of record.
bool SameAddress(std::string_view a, std::string_view b) {
  if (a == b) return true;
  const auto first = ReadUri(a);
  const auto second = ReadUri(b);
  return first && second && nsip_aor_key(*first) == nsip_aor_key(*second);
}

// How surely a contact is one of ours.
enum Likeness {
  kStranger,
  kRemembered,  // the one that was ours
  kNear,        // equal but for what is the default in SIP over UDP: the port, the transport
  kEqual,       // RFC 3261 §19.1.4, which passes over a "line" that only one of them has
  kSame,        // and the same parameters
};

bool SameParameters(const nsip_uri& a, const nsip_uri& b) {
  return a.params.size() == b.params.size() &&
         std::all_of(a.params.begin(), a.params.end(), [&](const nsip_generic_param& param) {
           const nsip_generic_param* other = nullptr;
           return nsip_generic_param_get_byname(b.params, param.name.c_str(), &other) == 0;
         });
}

nsip_uri WithoutDefaults(nsip_uri uri) {
  if (uri.scheme == "sip" && uri.port == 5060) uri.port = 0;
  std::erase_if(uri.params, [](const nsip_generic_param& param) {
    return base::EqualNoCase(param.name, "transport") && base::EqualNoCase(param.value, "udp");
  });
  return uri;
}

Likeness Compare(const nsip_uri& ours, const nsip_uri& theirs) {
  if (nsip_uri_equal(ours, theirs)) return SameParameters(ours, theirs) ? kSame : kEqual;
  const nsip_uri a = WithoutDefaults(ours);
  const nsip_uri b = WithoutDefaults(theirs);
  return SameParameters(a, b) && nsip_uri_equal(a, b) ? kNear : kStranger;
}

bool Ended(const ReginfoContact& contact) { return contact.state.value == kTerminated; }

// The text between the quotes of an attribute, of either kind, that is read as this value.
std::string AttributeText(std::string_view value) {
  std::string text;
  for (const char c : CXML::Escape(value)) {
    switch (c) {
      case '\'':
        text += "&apos;";
        break;
      case '\t':
      case '\n':  // as it stands it would be read as a blank
        text += c == '\t' ? "&#9;" : "&#10;";
        break;
      default:
        text += c;
    }
  }
  return text;
}

// The id of somebody else's element. Ours and what this makes of it move on by one, so two ids that
// were different remain so, and none is ever ours.
std::string OthersId(const std::string& id, std::string_view ours) {
  const bool clash = id.compare(0, ours.size(), ours) == 0 &&
                     id.find_first_not_of('~', ours.size()) == std::string::npos;
  return clash ? id + '~' : id;
}

}  // namespace

// One document on its way.
class ReginfoSequence::Step {
 public:
  Step(std::string_view body, State& state, std::string_view aor, bool closing)
      : body_(body), state_(state), aor_(aor), closing_(closing), edits_(body) {}

  Result Run(std::span<const std::string> own_contacts) {
    if (body_.size() > kNsipMaxMessage) return Unreadable("the document is too long");
    std::string reason;
    if (!ReadReginfo(body_, document_, reason)) return Unreadable(std::move(reason));
    ReadOwn(own_contacts);
    FindOwn();
    if (home_ != nullptr &&
        (home_->aor.value.empty() || home_->id.value.empty() || home_->state.value.empty())) {
      return Unreadable("the own registration lacks its aor, id or state");
    }
    if (own_ != nullptr &&
        (own_->id.value.empty() || own_->state.value.empty() || own_->event.value.empty())) {
      return Unreadable("the own contact lacks its id, state or event");
    }

    Result result;
    if (document_.full()) {
      state_.full_due = false;
    } else if (state_.full_due) {
      result.full_wanted = true;
      result.reason = "a partial document where a full one is due";
    }
    if (body_ == state_.last_body) {
      result.verdict = Verdict::kRepeated;
      return result;
    }
    const bool over = OwnIsOver();
    const bool first_seen = own_ != nullptr && state_.version == 0;
    const bool end = over && (state_.alive || first_seen);
    const bool active = own_ != nullptr && !over;
    if (!end && (closing_ || !(state_.alive || active))) {
      result.verdict = Verdict::kHeldBack;
      return result;
    }
    Remember();
    Write(end);
    result.document = edits_.Result();
    result.verdict = Verdict::kHandedOn;
    state_.alive = !end;
    state_.last_body = body_;
    ++state_.version;
    return result;
  }

 private:
  Result Unreadable(std::string reason) {
    state_.full_due = true;
    return {Verdict::kUnreadable, true, {}, std::move(reason)};
  }

  // Of several contacts of the client only the one that was followed so far counts, as long as the
  // client has it: the others belong to other registrations of the same address.
  void ReadOwn(std::span<const std::string> texts) {
    for (const std::string& text : texts) {
      if (auto uri = ReadUri(text)) ours_.push_back(std::move(*uri));
    }
    const auto followed = ReadUri(state_.own_uri);
    if (!followed) return;
    const auto others = std::stable_partition(ours_.begin(), ours_.end(), [&](const nsip_uri& uri) {
      return Compare(uri, *followed) != kStranger;
    });
    if (others != ours_.begin()) ours_.erase(others, ours_.end());
  }

  Likeness Judge(const ReginfoContact& contact) const {
    if (contact.uri.empty()) {  // an update of one that is known
      return !state_.own_id.empty() && contact.id.value == state_.own_id ? kRemembered : kStranger;
    }
    Likeness best = kStranger;
    if (const auto uri = ReadUri(contact.uri)) {
      for (const nsip_uri& ours : ours_) best = std::max(best, Compare(ours, *uri));
    }
    // While the client moves to another address, the registrar may know the former one only. Its
    // end, though, is not reported.
    if (best == kStranger && contact.uri == state_.own_uri && (ours_.empty() || !Ended(contact))) {
      best = kRemembered;
    }
    return best;
  }

  // The surest one, an active one before one that has ended; of equal ones the last.
  const ReginfoContact* OwnIn(const ReginfoRegistration& registration) const {
    const ReginfoContact* found = nullptr;
    std::pair<Likeness, bool> best{};
    for (std::size_t i = registration.contacts_begin; i < registration.contacts_end; ++i) {
      const ReginfoContact& contact = document_.contacts[i];
      const std::pair<Likeness, bool> rank{Judge(contact), !Ended(contact)};
      if (rank.first == kStranger || rank < best) continue;
      best = rank;
      found = &contact;
    }
    return found;
  }

  // One registration is followed: with implicit registration sets the own contact stands in
  // several, and which of them ends first must not decide. At first it is the subscribed address of
  // record's; later another one only when a full document says nothing of it any more and still
  // has the contact elsewhere.
  void FindOwn() {
    const bool followed = state_.version > 0;
    int best = 0;
    for (const ReginfoRegistration& registration : document_.registrations) {
      const bool same = SameAddress(registration.aor.value, followed ? state_.own_aor : aor_);
      const ReginfoContact* const own = OwnIn(registration);
      int rank = 0;
      if (same) {
        rank = own != nullptr ? 3 : followed ? 2 : 0;
      } else if (own != nullptr && (!followed || (document_.full() && !Ended(*own)))) {
        rank = 1;
      }
      if (rank == 0 || rank < best) continue;
      best = rank;
      home_ = &registration;
      own_ = own;
    }
  }

  [[nodiscard]] bool OwnIsOver() const {
    if (home_ != nullptr && home_->state.value == kTerminated) return true;
    return own_ != nullptr ? Ended(*own_) : document_.full();
  }

  void Remember() {
    if (own_ != nullptr) {
      if (state_.contact_id.empty()) state_.contact_id = own_->id.value;
      state_.own_id = own_->id.value;
      if (!own_->uri.empty()) state_.own_uri = own_->uri;
    }
    if (home_ != nullptr) {
      if (state_.registration_id.empty()) state_.registration_id = home_->id.value;
      state_.own_aor = home_->aor.value;
    }
  }

  void Set(const ReginfoAttribute& attribute, std::string_view value) {
    if (attribute.value != value) edits_.Replace(attribute.range, AttributeText(value));
  }

  void Write(bool end) {
    for (const TextRange& prefix : document_.prefixes) edits_.Replace(prefix, {});
    Set(document_.version, std::to_string(state_.version));
    for (const ReginfoRegistration& registration : document_.registrations) {
      Set(registration.id, &registration == home_
                               ? state_.registration_id
                               : OthersId(registration.id.value, state_.registration_id));
    }
    for (const ReginfoContact& contact : document_.contacts) {
      if (&contact == own_) continue;
      if (LeftOut(contact)) {
        edits_.Replace(contact.range, {});
      } else {
        Set(contact.id, OthersId(contact.id.value, state_.contact_id));
      }
    }
    if (own_ != nullptr) {
      WriteOwn(end);
    } else if (end) {
      WriteEnd();
    }
  }

  // The reader of version "0" acts on each contact that it meets, so somebody else's end would be
  // taken for ours.
  [[nodiscard]] bool LeftOut(const ReginfoContact& contact) const {
    return state_.version == 0 && &contact != own_ && Ended(contact);
  }

  // The last contact that is written of those in [begin, end), or null.
  [[nodiscard]] const ReginfoContact* LastWritten(std::size_t begin, std::size_t end) const {
    for (; end > begin; --end) {
      if (!LeftOut(document_.contacts[end - 1])) return &document_.contacts[end - 1];
    }
    return nullptr;
  }

  void WriteOwn(bool end) {
    constexpr std::array<std::string_view, 5> kEnds = {"expired", "deactivated", "probation",
                                                       "unregistered", "rejected"};
    Set(own_->id, state_.contact_id);
    if (end) {
      Set(own_->state, kTerminated);
      if (std::find(kEnds.begin(), kEnds.end(), own_->event.value) == kEnds.end()) {
        Set(own_->event, "expired");
      }
    } else if (own_->event.value == "shortened") {
      Set(own_->event, "shorted");
    }
    const ReginfoContact* const last = LastWritten(home_->contacts_begin, home_->contacts_end);
    if (last != own_) edits_.Move(own_->range, last->range.end);
    if (state_.version == 0 &&
        LastWritten(home_->contacts_end, document_.contacts.size()) != nullptr) {
      edits_.Move(home_->range, document_.registrations.back().range.end);
    }
  }

  // The own contact is gone without a word: says so in its place.
  void WriteEnd() {
    std::string text = R"(<contact id=")" + AttributeText(state_.contact_id) +
                       R"(" state="terminated" event="expired"><uri>)" +
                       CXML::Escape(state_.own_uri) + "</uri></contact>";
    if (home_ != nullptr) {
      Append(home_->range, home_->content_end, "registration", text);
    } else {
      text = R"(<registration aor=")" + AttributeText(state_.own_aor) + R"(" id=")" +
             AttributeText(state_.registration_id) + R"(" state="terminated">)" + text +
             "</registration>";
      Append(document_.range, document_.content_end, "reginfo", text);
    }
  }

  // At the end of an element, which may have been written without an end tag.
  void Append(TextRange element, std::size_t content_end, std::string_view name,
              const std::string& text) {
    if (content_end < element.end) {
      edits_.Replace({content_end, content_end}, text);
    } else {
      edits_.Replace({element.end - 2, element.end}, ">" + text + "</" + std::string(name) + ">");
    }
  }

  std::string_view body_;
  State& state_;
  std::string_view aor_;
  bool closing_;
  ReginfoDocument document_;
  TextEdits edits_;
  std::vector<nsip_uri> ours_;
  const ReginfoRegistration* home_ = nullptr;  // the registration that is followed
  const ReginfoContact* own_ = nullptr;        // in it
};

ReginfoSequence::Result ReginfoSequence::Process(std::string_view body, bool new_dialog,
                                                 std::span<const std::string> own_contacts) {
  static_assert(std::is_nothrow_move_assignable_v<State>);
  State next = state_;
  if (new_dialog) next.full_due = true;
  Result result = Step(body, next, aor_, closing_).Run(own_contacts);
  state_ = std::move(next);
  return result;
}

}  // namespace subscription
