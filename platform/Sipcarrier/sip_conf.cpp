// The templates in force, and how a message is made of one.
#include <algorithm>
#include <cstddef>
#include <new>
#include <utility>

#include "base/mutex.h"
#include "base/text.h"
#include "Sipcarrier/sip_conf_reader.h"
#include "Sipcarrier/sip_conf_value.h"
#include "Sipcarrier/Sipcarrier.h"
#include "Sipcarrier/target.h"

namespace {

using sipcarrier::ConfFault;
using sipcarrier::ConfMessage;
using Templates = std::vector<ConfMessage>;

// The values of this thread's next step, for the configuration that they were given to.
struct Cells {
  const CVorelSipConf* conf = nullptr;
  const std::map<std::string, std::string>* map = nullptr;
};
thread_local Cells t_cells;
// The last template that this thread was given.
thread_local std::unique_ptr<nsip_message> t_template;

// Null when the header has to be left out.
std::unique_ptr<nsip_header> Fill(const ConfMessage::Header& header,
                                  const std::map<std::string, std::string>* cells) {
  auto filled = std::make_unique<nsip_header>();
  if (!sipcarrier::FillValue(header.value, cells, filled->hvalue)) return nullptr;
  filled->hname = header.name;
  if (base::EqualNoCase(header.name, "Expires")) {
    // The merge compares expiries under this spelling only, and a template must not turn the 0 of a
    // deregistration into something else because it is spelled otherwise.
    filled->hname = "expires";
    if (!sipcarrier::IsDeltaSeconds(filled->hvalue)) return nullptr;
  }
  return filled;
}

}  // namespace

// The mutex is a leaf: nothing is read, parsed, filled or freed with it held.
struct CVorelSipConf::State {
  explicit State(const std::string& strName) : file(strName + ".xml") {}

  [[nodiscard]] std::shared_ptr<const Templates> InForce() const {
    const base::MutexLock lock(mutex);
    return in_force;
  }
  // False with a reason when there is no path to the file.
  bool Path(std::string& path, std::string& reason) const;

  const std::string file;
  mutable base::Mutex mutex;
  std::string directory TOLVANE_GUARDED_BY(mutex);
  std::shared_ptr<const Templates> in_force TOLVANE_GUARDED_BY(mutex) =
      std::make_shared<const Templates>();
  std::shared_ptr<const std::vector<ConfFault>> faults TOLVANE_GUARDED_BY(mutex);  // null: none
};

bool CVorelSipConf::State::Path(std::string& path, std::string& reason) const {
  {
    const base::MutexLock lock(mutex);
    path = directory;
  }
  if (path.empty()) {
    path = file;
    reason = "no directory has been set for it; set the work-dir first";
    return false;
  }
  if (path.back() != '/') path += '/';
  path += file;
  if (!sipcarrier::HasControl(path)) return true;
  // Shown as one line, so that nobody writes a second one into a log with it.
  std::replace_if(
      path.begin(), path.end(),
      [](char c) {
        return sipcarrier::HasControl({&c, 1});
      },
      '?');
  reason = "the directory's name holds a control character";
  return false;
}

CVorelSipConf::CVorelSipConf(const std::string& strName)
    : m_pState(std::make_unique<State>(strName)) {}

CVorelSipConf::~CVorelSipConf() = default;

void CVorelSipConf::SetCfgPath(const std::string& strPath) {
  std::string directory = strPath;
  const base::MutexLock lock(m_pState->mutex);
  m_pState->directory.swap(directory);
}

int CVorelSipConf::ReadConfFromFile() {
  std::shared_ptr<const Templates> messages;
  std::shared_ptr<const std::vector<ConfFault>> faults;
  try {
    auto read = std::make_shared<Templates>();
    auto found = std::make_shared<std::vector<ConfFault>>();
    std::string path;
    std::string reason;
    if (m_pState->Path(path, reason)) {
      sipcarrier::ReadConf(path, *read, *found);
    } else {
      found->push_back({path, 0, reason});
    }
    if (found->empty()) {
      messages = std::move(read);
    } else {
      faults = std::move(found);
    }
  } catch (const std::bad_alloc&) {
    // Neither templates nor a fault: there is no memory to tell it with.
  }
  const bool good = messages != nullptr;
  {
    const base::MutexLock lock(m_pState->mutex);
    m_pState->faults.swap(faults);
    if (good) m_pState->in_force.swap(messages);
  }
  return good ? 0 : -1;
}

namespace {

Templates::const_iterator FindTemplate(const Templates& templates, const std::string& kind,
                                       const std::string& method) {
  return std::find_if(templates.begin(), templates.end(), [&](const auto& message) {
    return message.kind == kind && message.method == method;
  });
}

}  // namespace

bool CVorelSipConf::HasSipMsg(const std::string& strFirst, const std::string& strSecond) const {
  const std::shared_ptr<const Templates> in_force = m_pState->InForce();
  return FindTemplate(*in_force, strFirst, strSecond) != in_force->end();
}

void CVorelSipConf::SetTransferCell(const std::map<std::string, std::string>& mapCell) {
  t_cells = {this, &mapCell};
}

nsip_message* CVorelSipConf::GetSipMsg(const std::string& strFirst, const std::string& strSecond,
                                       nsip_message* /*pSipMessage*/) {
  t_template.reset();
  const Cells given = std::exchange(t_cells, {});
  const auto* cells = given.conf == this ? given.map : nullptr;
  const std::shared_ptr<const Templates> in_force = m_pState->InForce();
  const auto found = FindTemplate(*in_force, strFirst, strSecond);
  if (found == in_force->end()) return nullptr;
  auto message = std::make_unique<nsip_message>();
  std::size_t bytes = 0;
  for (const ConfMessage::Header& header : found->headers) {
    std::unique_ptr<nsip_header> filled = Fill(header, cells);
    if (filled == nullptr) continue;
    // Long cells must not make a message that is too long to be sent.
    const std::size_t size = sipcarrier::HeaderBytes(filled->hname, filled->hvalue);
    if (bytes + size > sipcarrier::kMaxTemplateBytes) continue;
    const auto end = static_cast<int>(message->headers.items.size());
    if (nsip_list_add(&message->headers, filled.get(), end) < 0) continue;
    static_cast<void>(filled.release());  // the list owns it now
    bytes += size;
  }
  t_template = std::move(message);
  return t_template.get();
}

std::vector<ConfFault> CVorelSipConf::Faults() const {
  std::shared_ptr<const std::vector<ConfFault>> faults;
  {
    const base::MutexLock lock(m_pState->mutex);
    faults = m_pState->faults;
  }
  return faults != nullptr ? *faults : std::vector<ConfFault>();
}

std::vector<ConfMessage> CVorelSipConf::Messages() const { return *m_pState->InForce(); }
