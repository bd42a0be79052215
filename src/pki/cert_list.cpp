#include "quillon32/cert_list.h"

#include <vector>

// Each certificate sits in its own allocation so that the pointers get()
// hands out survive later additions.
struct CertList::Impl {
  std::vector<std::unique_ptr<Certificate>> certs;
};

CertList::CertList() : impl_(std::make_unique<Impl>()) {}
CertList::~CertList() = default;

CertList::CertList(const CertList& other) : impl_(std::make_unique<Impl>()) {
  if (!other.impl_) return;
  impl_->certs.reserve(other.impl_->certs.size());
  for (const auto& c : other.impl_->certs) impl_->certs.push_back(std::make_unique<Certificate>(*c));
}

CertList& CertList::operator=(const CertList& other) {
  if (this != &other) {
    CertList copy(other);
    impl_ = std::move(copy.impl_);
  }
  return *this;
}

// A moved-from list is left empty and usable.
CertList::CertList(CertList&& other) noexcept : impl_(std::move(other.impl_)) {}

CertList& CertList::operator=(CertList&& other) noexcept {
  if (this != &other) impl_ = std::move(other.impl_);
  return *this;
}

bool CertList::add(const Certificate& cert) {
  if (!cert.isDecoded()) return false;
  auto copy = std::make_unique<Certificate>(cert);
  if (!copy->isDecoded()) return false;
  if (!impl_) impl_ = std::make_unique<Impl>();
  impl_->certs.push_back(std::move(copy));
  return true;
}

bool CertList::add(const Certificate* cert) { return cert != nullptr && add(*cert); }

int CertList::count() const { return impl_ ? static_cast<int>(impl_->certs.size()) : 0; }

Certificate* CertList::get(int index) {
  if (!impl_ || index < 0 || static_cast<size_t>(index) >= impl_->certs.size()) return nullptr;
  return impl_->certs[static_cast<size_t>(index)].get();
}

const Certificate* CertList::get(int index) const {
  return const_cast<CertList*>(this)->get(index);
}

void CertList::clear() {
  if (impl_) impl_->certs.clear();
}
