// CertList: an ordered list of certificates, each one the list's own copy.
#pragma once

#include <memory>

#include "quillon32/certificate.h"
#include "quillon32/export.h"

class QUILLON32_API CertList {
 public:
  CertList();
  CertList(const CertList& other);  // copies every certificate
  CertList& operator=(const CertList& other);
  CertList(CertList&&) noexcept;
  CertList& operator=(CertList&&) noexcept;
  ~CertList();

  // Appends a copy of |cert|; the caller keeps the object given. False, list
  // unchanged, for a null or undecoded certificate.
  bool add(const Certificate& cert);
  bool add(const Certificate* cert);

  int count() const;
  // The certificate at |index| in the order added, owned by the list and
  // valid until it is cleared or destroyed (adding keeps it valid); null
  // when |index| is out of range.
  Certificate* get(int index);
  const Certificate* get(int index) const;

  void clear();

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};
