// Who answers which requests.
#pragma once

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "Sipcarrier/Sipcarrier.h"

namespace sipcarrier {

// Any thread, except Use. mutex_ is a leaf: not held while a handler runs or is freed.
class RequestHandlers {
 public:
  // An empty handler takes the method's away, and waits for its call under way unless called on the
  // I/O thread. false: the method is handled already, its transactions are not served, or closed.
  // May throw std::bad_alloc.
  bool Set(const std::string& method, RequestFn handler, bool on_io_thread);
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
    friend class RequestHandlers;
    RequestHandlers& handlers_;
    const std::string method_;
    std::shared_ptr<const RequestFn> handler_;
  };

 private:
  mutable std::mutex mutex_;  // guards all below
  std::condition_variable changed_;
  std::map<std::string, std::shared_ptr<const RequestFn>> by_method_;
  const Use* current_ = nullptr;
  bool closed_ = false;
};

}  // namespace sipcarrier
