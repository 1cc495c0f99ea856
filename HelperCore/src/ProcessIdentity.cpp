#include "HelperCore/ProcessIdentity.h"

#include "TLFoundation/HashFields.h"

std::size_t std::hash<tessaloom::ProcessIdentity>::operator()(
    const tessaloom::ProcessIdentity& identity) const noexcept {
  return tessaloom::hashFields(identity.pid, identity.startSec, identity.startUSec);
}
