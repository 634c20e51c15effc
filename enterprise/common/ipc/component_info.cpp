#include "enterprise/common/ipc/component_info.h"

#include <cstdlib>
#include <map>

#include "core/common/unix/mutex.h"
#include "core/common/unix/static_mutex.h"

namespace Core {

namespace {

class ComponentRegistry : public Common::NonCopyable {
 public:
  // For static constructors: made when it is first asked for.
  static ComponentRegistry& Get() {
    const Common::StaticMutexLock lock(instance_mutex_);
    if (instance_ == nullptr) {
      instance_ = new ComponentRegistry;
      std::atexit(&Destroy);
    }
    return *instance_;
  }

  void Register(ComponentInfo* component) {
    const std::uint32_t id = component->GetComponentId();
    const Common::MutexLock lock(mutex_);
    components_.insert_or_assign(id, component);
  }

  ComponentInfo* Find(std::uint32_t id) {
    const Common::MutexLock lock(mutex_);
    const auto found = components_.find(id);
    return found != components_.end() ? found->second : nullptr;
  }

 private:
  static void Destroy() {
    const Common::StaticMutexLock lock(instance_mutex_);
    delete instance_;
    instance_ = nullptr;
  }

  static constinit inline Common::StaticMutex instance_mutex_;
  static constinit inline ComponentRegistry* instance_ = nullptr;

  Common::Mutex mutex_;
  std::map<std::uint32_t, ComponentInfo*> components_;
};

}  // namespace

void RegisterComponent(ComponentInfo* component) {
  ComponentRegistry::Get().Register(component);
}

ComponentInfo* FindComponent(std::uint32_t component_id) {
  return ComponentRegistry::Get().Find(component_id);
}

}  // namespace Core
