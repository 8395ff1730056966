#include "sivra/dialog.h"

#include <algorithm>
#include <array>
#include <utility>

#include "base/random.h"
#include "base/text.h"
#include "sivra/address.h"
#include "sivra/digest.h"

namespace sivra {
namespace {

std::string_view TagOf(const std::unique_ptr<nsip_from>& address) {
  return address ? ParamOf(address->params, "tag") : std::string_view();
}

// What RFC 3261 §19.1.1 (table 1) bars from a Request-URI.
void MakeRequestUri(nsip_uri& uri) {
  uri.headers.clear();
  std::erase_if(uri.params, [](const nsip_generic_param& param) {
    return base::EqualNoCase(param.name, "method");
  });
}

bool IsLoose(const nsip_uri& uri) {
  const nsip_generic_param* param = nullptr;
  return nsip_generic_param_get_byname(uri.params, "lr", &param) == 0;
}

}  // namespace

Dialog::Dialog(std::unique_ptr<nsip_from> from, std::unique_ptr<nsip_to> to) {
  form_.from = std::move(from);
  form_.to = std::move(to);
  form_.req_uri = std::make_unique<nsip_uri>(*form_.to->url);
  form_.max_forwards = 70;
}

void Dialog::SetFirstRouter(std::unique_ptr<nsip_uri> router) {
  if (base::EqualNoCase(router->host, form_.req_uri->host) && router->port == form_.req_uri->port) {
    return;  // it goes there anyway
  }
  if (!IsLoose(*router)) {
    router->params.push_back({"lr", {}, false});
  }
  auto route = std::make_unique<nsip_route>();
  route->url = std::move(router);
  form_.routes.push_back(std::move(route));
}

bool Dialog::Identify() {
  std::array<unsigned char, 16> call_id{};
  std::array<unsigned char, 8> tag{};
  if (!base::FillRandom(call_id) || !base::FillRandom(tag)) {
    return false;
  }
  form_.call_id = base::HexText(call_id);
  form_.from->params.push_back({"tag", base::HexText(tag), true});
  return true;
}

std::unique_ptr<nsip_message> Dialog::MakeRequest(std::string_view method) {
  auto request = nsip_message_clone(form_);
  request->sip_method = method;
  request->cseq_method = method;
  request->cseq_number = ++local_cseq_;
  return request;
}

bool Dialog::Owns(const nsip_message& message) const {
  const bool is_request = message.status_code == 0;
  const std::string_view remote = TagOf(is_request ? message.from : message.to);
  return message.call_id == form_.call_id && !remote.empty() &&
         TagOf(is_request ? message.to : message.from) == TagOf(form_.from) &&
         (!established() || remote == remote_tag_);
}

void Dialog::Learn(nsip_message& message) {
  const bool is_request = message.status_code == 0;
  const nsip_uri* contact = nullptr;
  if (!message.contacts.empty() && message.contacts.front()->url &&
      IsSip(*message.contacts.front()->url)) {
    contact = message.contacts.front()->url.get();
  }
  if (!established()) {
    remote_tag_ = TagOf(is_request ? message.from : message.to);
    form_.to->params.push_back({"tag", remote_tag_, true});
    // The list is written from the other side's view in a request, from ours in its answer.
    form_.routes = std::move(message.record_routes);
    if (!is_request) {
      std::reverse(form_.routes.begin(), form_.routes.end());
    }
    auto target = std::move(form_.req_uri);
    form_.req_uri = std::make_unique<nsip_uri>(*target);
    if (!form_.routes.empty() && !IsLoose(*form_.routes.front()->url)) {
      // RFC 3261 §12.2.1.1: such a router wants itself in the Request-URI; the target comes last.
      strict_ = true;
      *form_.req_uri = *form_.routes.front()->url;
      MakeRequestUri(*form_.req_uri);
      form_.routes.erase(form_.routes.begin());
      auto last = std::make_unique<nsip_route>();
      last->url = std::move(target);
      form_.routes.push_back(std::move(last));
    }
  }
  if (contact != nullptr) {
    SetTarget(*contact);
  }
  if (is_request) {
    remote_cseq_ = std::max(remote_cseq_, message.cseq_number);
  }
}

void Dialog::SetTarget(const nsip_uri& target) {
  nsip_uri& place = strict_ ? *form_.routes.back()->url : *form_.req_uri;
  place = target;
  MakeRequestUri(place);
}

bool Dialog::IsStale(const nsip_message& request) const {
  return established() && request.cseq_number < remote_cseq_;
}

}  // namespace sivra
