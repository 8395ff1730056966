// Who answers which requests.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "base/call_gate.h"
#include "base/mutex.h"
#include "Sipcarrier/Sipcarrier.h"

namespace sipcarrier {

// Any thread, except Use. mutex_ is a leaf: not held while a handler runs or is freed.
class RequestHandlers {
 public:
  // An empty handler takes the method's away, and waits for its call under way unless called from
  // it. false: the method is handled already, its transactions are not served, or closed. May throw
  // std::bad_alloc.
  bool Set(const std::string& method, RequestFn handler);
  // Takes all away, for good.
  void Close() noexcept;
  // As Allow lists them; OPTIONS among them, which needs no handler. May throw std::bad_alloc.
  [[nodiscard]] std::string Allow() const;

  // The handler of a method while a request is looked at; I/O thread, one at a time.
  class Use {
   public:
    Use(RequestHandlers& handlers, const std::string& method);  // may throw std::bad_alloc
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    ~Use();
    // Null when nobody handles the method.
    [[nodiscard]] const RequestFn* handler() const { return handler_.get(); }

   private:
    RequestHandlers& handlers_;
    const std::string method_;
    std::shared_ptr<const RequestFn> handler_;
  };

 private:
  using ByMethod = std::map<std::string, std::shared_ptr<const RequestFn>>;

  mutable base::Mutex mutex_;
  base::CallGate<const std::string*> calls_;  // to the handler of a method
  ByMethod by_method_ TOLVANE_GUARDED_BY(mutex_);
  bool closed_ TOLVANE_GUARDED_BY(mutex_) = false;
};

}  // namespace sipcarrier
