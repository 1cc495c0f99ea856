// What clang calls for messages, reference counts, weak references, pools and blocks.

#include "Runtime.h"

#include <unwind.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

extern "C" {
// The linker makes these for every section whose name is an identifier.
extern ClassRecord* __start_objc_classlist[];
extern ClassRecord* __stop_objc_classlist[];
extern Selector __start_objc_selrefs[];
extern Selector __stop_objc_selrefs[];
extern ProtocolRecord* __start_objc_protolist[];
extern ProtocolRecord* __stop_objc_protolist[];
extern ClassRecord constantStringClass __asm__("OBJC_CLASS_$_ConstantString");
extern ClassRecord protocolClass __asm__("OBJC_CLASS_$_Protocol");

ClassRecord __CFConstantStringClassReference;
void* _objc_empty_cache[1];
void* _NSConcreteStackBlock[32];
void* _NSConcreteMallocBlock[32];
void* _NSConcreteGlobalBlock[32];
}

namespace {

constexpr std::uint32_t metaClassFlag = 1;

struct ClassFacts {
  std::unordered_map<Selector, Implementation> methods;
  Implementation forwarder = nullptr;
  std::atomic<long> live = 0;
};

/// Written while the program is loaded, by one thread; only read from then on.
struct Tables {
  std::unordered_set<std::string> selectors;
  std::unordered_map<const ClassRecord*, std::unique_ptr<ClassFacts>> classes;
};

Tables& tables() {
  static Tables& instance = *new Tables;
  return instance;
}

std::atomic<long> liveBlocks = 0;

Selector intern(Selector name) {
  return tables().selectors.emplace(name).first->c_str();
}

ClassFacts& factsOf(const ClassRecord* of) {
  return *tables().classes.at(of);
}

void internMethods(MethodList* list) {
  for (std::uint32_t i = 0; list != nullptr && i < list->count; ++i)
    list->methods[i].name = intern(list->methods[i].name);
}

void addClass(ClassRecord* added) {
  internMethods(added->data->methods);
  auto& facts = tables().classes[added];
  facts = std::make_unique<ClassFacts>();
  if (added->data->methods == nullptr) return;
  for (const auto& method : *added->data->methods)
    facts->methods[method.name] = method.implementation;
}

Selector allocSelector, initSelector, deallocSelector, constructSelector, destructSelector;

__attribute__((constructor(101))) void load() {
  for (Selector* it = __start_objc_selrefs; it != __stop_objc_selrefs; ++it) *it = intern(*it);
  for (ClassRecord** it = __start_objc_classlist; it != __stop_objc_classlist; ++it) {
    addClass(*it);
    addClass((*it)->isa);
  }
  for (ProtocolRecord** it = __start_objc_protolist; it != __stop_objc_protolist; ++it) {
    (*it)->isa = &protocolClass;
    internMethods((*it)->instanceMethods);
  }
  __CFConstantStringClassReference = constantStringClass;
  addClass(&__CFConstantStringClassReference);
  allocSelector = intern("alloc");
  initSelector = intern("init");
  deallocSelector = intern("dealloc");
  constructSelector = intern(".cxx_construct");
  destructSelector = intern(".cxx_destruct");
}

Implementation methodOf(const ClassRecord* of, Selector selector) {
  for (; of != nullptr; of = of->superclass) {
    const auto& methods = factsOf(of).methods;
    if (const auto found = methods.find(selector); found != methods.end()) return found->second;
  }
  return nullptr;
}

struct Header {
  std::atomic<long> references;
  long padding;  // Objects are aligned to 16 bytes.
};

Header& headerOf(ObjectRecord* object) {
  return *(reinterpret_cast<Header*>(object) - 1);
}

bool isBlock(const ObjectRecord* object) {
  const void* isa = object->isa;
  return isa == _NSConcreteStackBlock || isa == _NSConcreteMallocBlock ||
         isa == _NSConcreteGlobalBlock;
}

/// Literals, protocols and classes are part of the program.
bool isImmortal(const ObjectRecord* object) {
  return object->isa == &__CFConstantStringClassReference || object->isa == &protocolClass ||
         (object->isa->data->flags & metaClassFlag) != 0;
}

/// A last release and a weak load exclude each other.
std::mutex weakLock;
std::unordered_map<ObjectRecord*, std::set<ObjectRecord**>>& weakReferences() {
  static auto& instance = *new std::unordered_map<ObjectRecord*, std::set<ObjectRecord**>>;
  return instance;
}

thread_local std::vector<ObjectRecord*> pool;
thread_local int poolDepth = 0;

struct Block {
  struct Descriptor {
    unsigned long reserved, size;
    void (*copy)(void*, const void*);
    void (*dispose)(const void*);
  };
  void* isa;
  std::atomic<int> flags;
  int reserved;
  void* invoke;
  Descriptor* descriptor;

  static constexpr int onHeap = 1 << 24, hasHelpers = 1 << 25, isGlobal = 1 << 28;
  static constexpr int countMask = 0xfffe, countStep = 2;
};

}  // namespace

namespace runtime {

void fault(const std::string& what) {
  std::fprintf(stderr, "double: %s\n", what.c_str());
  std::abort();
}

Selector find(const std::string& name) {
  const auto found = tables().selectors.find(name);
  return found == tables().selectors.end() ? nullptr : found->c_str();
}

bool implements(ObjectRecord* object, Selector selector) {
  return methodOf(object->isa, selector) != nullptr;
}

ObjectRecord* allocate(ClassRecord* of) {
  auto* header = static_cast<Header*>(std::calloc(1, sizeof(Header) + of->data->instanceSize));
  header->references = 1;
  auto* object = reinterpret_cast<ObjectRecord*>(header + 1);
  object->isa = of;
  ++factsOf(of).live;
  std::vector<ClassRecord*> chain;
  for (ClassRecord* it = of; it != nullptr; it = it->superclass) chain.insert(chain.begin(), it);
  for (const ClassRecord* it : chain) {
    const auto& methods = factsOf(it).methods;
    if (const auto found = methods.find(constructSelector); found != methods.end())
      reinterpret_cast<void* (*)(ObjectRecord*, Selector)>(found->second)(object,
                                                                          constructSelector);
  }
  return object;
}

void destroy(ObjectRecord* object) {
  for (const ClassRecord* it = object->isa; it != nullptr; it = it->superclass) {
    const auto& methods = factsOf(it).methods;
    if (const auto found = methods.find(destructSelector); found != methods.end())
      reinterpret_cast<void (*)(ObjectRecord*, Selector)>(found->second)(object, destructSelector);
  }
  --factsOf(object->isa).live;
  std::free(&headerOf(object));
}

void setForwarder(ClassRecord* of, Implementation forwarder) {
  factsOf(of).forwarder = forwarder;
}

std::string liveObjects() {
  std::map<std::string, long> counts{{"block", liveBlocks}};
  for (const auto& [record, facts] : tables().classes) counts[record->data->name] += facts->live;
  std::string lines;
  for (const auto& [name, count] : counts)
    if (count != 0) lines += name + " " + std::to_string(count) + "\n";
  return lines;
}

}  // namespace runtime

extern "C" {

Implementation runtimeLookUp(const ClassRecord* of, Selector selector) {
  if (const Implementation found = methodOf(of, selector)) return found;
  for (const ClassRecord* it = of; it != nullptr; it = it->superclass)
    if (const Implementation forwarder = factsOf(it).forwarder) return forwarder;
  runtime::fault(std::string("unrecognized selector ") + of->data->name + " " + selector);
}

Selector sel_registerName(const char* name) {
  const Selector known = runtime::find(name);
  // Fit for a message, but no method has it.
  if (known == nullptr) runtime::fault(std::string("no method is called ") + name);
  return known;
}

void objc_release(ObjectRecord* object);

void* _Block_copy(const void* argument) {
  auto* block = static_cast<Block*>(const_cast<void*>(argument));
  if (block == nullptr || (block->flags & Block::isGlobal) != 0) return block;
  if ((block->flags & Block::onHeap) != 0) {
    block->flags += Block::countStep;
    return block;
  }
  auto* copy = static_cast<Block*>(std::malloc(block->descriptor->size));
  std::memcpy(static_cast<void*>(copy), block, block->descriptor->size);
  copy->flags = (block->flags & ~Block::countMask) | Block::onHeap | Block::countStep;
  copy->isa = _NSConcreteMallocBlock;
  if ((copy->flags & Block::hasHelpers) != 0) copy->descriptor->copy(copy, block);
  ++liveBlocks;
  return copy;
}

void _Block_release(const void* argument) {
  auto* block = static_cast<Block*>(const_cast<void*>(argument));
  if (block == nullptr || (block->flags & Block::onHeap) == 0) return;
  const int before = block->flags.fetch_sub(Block::countStep);
  if ((before & Block::countMask) == 0) runtime::fault("a block was released too often");
  if ((before & Block::countMask) != Block::countStep) return;
  if ((before & Block::hasHelpers) != 0) block->descriptor->dispose(block);
  --liveBlocks;
  std::free(block);
}

ObjectRecord* objc_retain(ObjectRecord* object) {
  if (object == nullptr) return nullptr;
  if (isBlock(object)) return static_cast<ObjectRecord*>(_Block_copy(object));
  if (!isImmortal(object)) ++headerOf(object).references;
  return object;
}

ObjectRecord* objc_retainBlock(ObjectRecord* block) {
  return objc_retain(block);
}

void _Block_object_assign(void* destination, const void* object, int flags) {
  constexpr int byReference = 8;
  if ((flags & byReference) != 0) runtime::fault("__block variables are not supported");
  *static_cast<void**>(destination) =
      objc_retain(static_cast<ObjectRecord*>(const_cast<void*>(object)));
}

void _Block_object_dispose(const void* object, int) {
  objc_release(static_cast<ObjectRecord*>(const_cast<void*>(object)));
}

void objc_release(ObjectRecord* object) {
  if (object == nullptr) return;
  if (isBlock(object)) return _Block_release(object);
  if (isImmortal(object)) return;
  {
    const std::lock_guard locked(weakLock);
    const long left = --headerOf(object).references;
    if (left < 0) runtime::fault(std::string("released too often: ") + object->isa->data->name);
    if (left > 0) return;
    if (const auto found = weakReferences().extract(object))
      for (ObjectRecord** reference : found.mapped()) *reference = nullptr;
  }
  reinterpret_cast<void (*)(ObjectRecord*, Selector)>(runtimeLookUp(object->isa, deallocSelector))(
      object, deallocSelector);
}

void* objc_autoreleasePoolPush() {
  ++poolDepth;
  return reinterpret_cast<void*>(pool.size());
}
void objc_autoreleasePoolPop(void* mark) {
  while (pool.size() > reinterpret_cast<std::size_t>(mark)) {
    ObjectRecord* last = pool.back();
    pool.pop_back();
    objc_release(last);
  }
  --poolDepth;
}
ObjectRecord* objc_autorelease(ObjectRecord* object) {
  if (object == nullptr || (!isBlock(object) && isImmortal(object))) return object;
  // It would live until its thread ends: on Dispatch's threads nobody knows for how long.
  if (poolDepth == 0) runtime::fault(std::string("no pool for a ") + object->isa->data->name);
  pool.push_back(object);
  return object;
}
ObjectRecord* objc_retainAutorelease(ObjectRecord* object) {
  return objc_autorelease(objc_retain(object));
}
ObjectRecord* objc_autoreleaseReturnValue(ObjectRecord* object) {
  return objc_autorelease(object);
}
ObjectRecord* objc_retainAutoreleaseReturnValue(ObjectRecord* object) {
  return objc_retainAutorelease(object);
}
ObjectRecord* objc_retainAutoreleasedReturnValue(ObjectRecord* object) {
  return objc_retain(object);
}
ObjectRecord* objc_unsafeClaimAutoreleasedReturnValue(ObjectRecord* object) {
  return object;  // Of what is called for nothing but its effects.
}
void objc_storeStrong(ObjectRecord** location, ObjectRecord* object) {
  ObjectRecord* before = *location;
  *location = objc_retain(object);
  objc_release(before);
}

// Atomic as far as one lock goes round a field and its count.
std::mutex propertyLock;
ObjectRecord** fieldOf(ObjectRecord* object, std::ptrdiff_t offset) {
  return reinterpret_cast<ObjectRecord**>(reinterpret_cast<char*>(object) + offset);
}
void objc_setProperty_atomic(ObjectRecord* object, Selector, ObjectRecord* value,
                             std::ptrdiff_t offset) {
  value = objc_retain(value);  // A block may become another.
  {
    const std::lock_guard locked(propertyLock);
    std::swap(*fieldOf(object, offset), value);
  }
  objc_release(value);
}
void objc_setProperty_atomic_copy(ObjectRecord* object, Selector selector, ObjectRecord* value,
                                  std::ptrdiff_t offset) {
  objc_setProperty_atomic(object, selector, value, offset);  // Blocks are the only values.
}
ObjectRecord* objc_getProperty(ObjectRecord* object, Selector, std::ptrdiff_t offset, bool) {
  const std::lock_guard locked(propertyLock);
  return objc_retainAutorelease(*fieldOf(object, offset));
}

ObjectRecord* objc_storeWeak(ObjectRecord** location, ObjectRecord* object) {
  const std::lock_guard locked(weakLock);
  if (*location != nullptr) weakReferences()[*location].erase(location);
  if (object != nullptr) weakReferences()[object].insert(location);
  return *location = object;
}
ObjectRecord* objc_initWeak(ObjectRecord** location, ObjectRecord* object) {
  *location = nullptr;
  return objc_storeWeak(location, object);
}
void objc_destroyWeak(ObjectRecord** location) {
  objc_storeWeak(location, nullptr);
}
ObjectRecord* objc_loadWeakRetained(ObjectRecord** location) {
  const std::lock_guard locked(weakLock);
  if (*location != nullptr) ++headerOf(*location).references;
  return *location;
}
void objc_copyWeak(ObjectRecord** to, ObjectRecord** from) {
  ObjectRecord* object = objc_loadWeakRetained(from);
  objc_initWeak(to, object);
  objc_release(object);
}

ObjectRecord* objc_alloc(ClassRecord* of) {
  return reinterpret_cast<ObjectRecord* (*)(ClassRecord*, Selector)>(objc_msgSend)(of,
                                                                                   allocSelector);
}
ObjectRecord* objc_alloc_init(ClassRecord* of) {
  return reinterpret_cast<ObjectRecord* (*)(ObjectRecord*, Selector)>(objc_msgSend)(objc_alloc(of),
                                                                                    initSelector);
}
bool objc_opt_isKindOfClass(ObjectRecord* object, const ClassRecord* of) {
  for (const ClassRecord* it = object != nullptr ? object->isa : nullptr; it != nullptr;
       it = it->superclass)
    if (it == of) return true;
  return false;
}

_Unwind_Reason_Code __gxx_personality_v0(int, _Unwind_Action, _Unwind_Exception_Class,
                                         _Unwind_Exception*, _Unwind_Context*);
_Unwind_Reason_Code __objc_personality_v0(int version, _Unwind_Action actions,
                                          _Unwind_Exception_Class kind,
                                          _Unwind_Exception* exception, _Unwind_Context* context) {
  return __gxx_personality_v0(version, actions, kind, exception, context);
}
}

// A message: every register that may hold an argument is kept around the look-up; no method here
// takes floating-point numbers. The receiver of a message to `super` and its class are behind the
// first argument.
__asm__(R"(
  .text
  .globl objc_msgSend, objc_msgSendSuper2
  .type objc_msgSend, @function
  .type objc_msgSendSuper2, @function
objc_msgSendSuper2:
  movq 8(%rdi), %rax
  movq 8(%rax), %rax
  movq (%rdi), %rdi
  jmp 2f
objc_msgSend:
  testq %rdi, %rdi
  jz 1f
  movq (%rdi), %rax
2:
  pushq %rbp
  movq %rsp, %rbp
  subq $48, %rsp
  .irp register, rdi, rsi, rdx, rcx, r8, r9
  movq %\register, offset_\register(%rsp)
  .endr
  movq %rax, %rdi
  call runtimeLookUp@PLT
  movq %rax, %r11
  .irp register, rdi, rsi, rdx, rcx, r8, r9
  movq offset_\register(%rsp), %\register
  .endr
  leave
  jmp *%r11
1:
  xorl %eax, %eax
  xorl %edx, %edx
  ret
  .set offset_rdi, 0
  .set offset_rsi, 8
  .set offset_rdx, 16
  .set offset_rcx, 24
  .set offset_r8, 32
  .set offset_r9, 40
)");
