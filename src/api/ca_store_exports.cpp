// Exported entry points of the CA certificate store and of its file: adding,
// finding and removing trusted CA certificates, saving and loading the CA
// list file, reading PEM list files, and the per-record trusted-list queries.
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "api/ca_operations.h"
#include "api/export_guard.h"
#include "api/library.h"
#include "api/messages.h"
#include "castore/ca_store.h"
#include "pki/certificate_parts.h"
#include "pki/der.h"
#include "pki/name_der.h"
#include "quillon32/quillon32.h"

using quillon::api::AsCache;
using quillon::api::CacheContext;
using quillon::api::Guarded;
using quillon::api::GuardedVoid;
using quillon::api::Library;
using quillon::api::LoggerOf;
using quillon::castore::CaRecord;
using quillon::castore::CaStore;

namespace {


// Runs |body| on the CA table under its guard.
template <class F>
auto WithStore(F&& body) {
  Library& lib = Library::Get();
  MutexGuard hold(lib.guard(quillon::api::kCaTableGuard));
  return body(static_cast<const CaStore&>(lib.ca_store()));
}

template <class F>
auto WithMutableStore(F&& body) {
  Library& lib = Library::Get();
  MutexGuard hold(lib.guard(quillon::api::kCaTableGuard));
  return body(lib.ca_store());
}

// Records 5195 "Failed to add to the list of CA certificates" in the
// context and its log.
unsigned char AddFailed(void* ctx) {
  if (ctx) {
    quillon::api::Fail(AsCache(ctx), quillon::api::kFailedToAddCaList);
  }
  return 0;
}

unsigned char AddDecoded(void* ctx, const Certificate& cert, int source) {
  if (!quillon::api::AddCaCertificate(AsCache(ctx), cert, source)) return AddFailed(ctx);
  return 1;
}

bool DecodeDer(const unsigned char* der, size_t length, Certificate* cert) {
  return der && length > 0 && cert->decode(der, length);
}

bool DecodePem(const char* pem, Certificate* cert) {
  return pem && cert->decodePEM(pem, std::strlen(pem));
}

// The removals decode the certificate they are given; one that does not
// decode is logged with the add text, the one the catalogue has for it.
unsigned char RemoveDecoded(void* ctx, bool decoded, const Certificate& cert) {
  if (!decoded) {
    quillon::api::Log(LoggerOf(AsCache(ctx)), 3, quillon::api::kFailedToAddCaList);
    return 0;
  }
  return WithMutableStore([&](CaStore& store) { return store.remove(cert) ? 1 : 0; });
}

int SourceOf(const Certificate& cert) {
  return WithStore([&](const CaStore& store) {
    const CaRecord* r = store.findCertificate(cert);
    return r ? r->source : -1;
  });
}

// The metadata of record (entry, record), or null.
template <class F>
auto WithMetadata(int entry, int record, F&& body) {
  return WithStore([&](const CaStore& store) {
    const CaRecord* r = store.record(entry, record);
    return body(r ? r->metadata.get() : nullptr);
  });
}

constexpr const char kQualifiedCaType[] = "http://uri.etsi.org/TrstSvc/Svctype/CA/QC";
constexpr const char kQualifiedTsaType[] = "http://uri.etsi.org/TrstSvc/Svctype/TSA/QTST";

}  // namespace

// ---------------------------------------------------------------------------
// Adding

unsigned char cache_addCACert(void* ctx, char* file) {
  return Guarded<unsigned char>(0, [&]() -> unsigned char {
    Buffer content;
    Certificate cert;
    if (!file || !content.readFile(file) ||
        !(DecodeDer(content.data(), content.size(), &cert) ||
          cert.decodePEM(reinterpret_cast<const char*>(content.data()), content.size()))) {
      return AddFailed(ctx);
    }
    return AddDecoded(ctx, cert, quillon::castore::kSourceCaller);
  });
}

unsigned char cache_addCACert(void* ctx, Certificate* cert) {
  return cache_addCACert(ctx, cert, quillon::castore::kSourceCaller);
}

unsigned char cache_addCACert(void* ctx, Certificate* cert, int source) {
  return Guarded<unsigned char>(0, [&]() -> unsigned char {
    if (!cert || !cert->isDecoded()) return AddFailed(ctx);
    return AddDecoded(ctx, *cert, source);
  });
}

unsigned char cache_addCACert(void* ctx, unsigned char* der, unsigned int length) {
  return cache_addCACertDER(ctx, der, length);
}

unsigned char cache_addCACertDER(void* ctx, unsigned char* der, unsigned int length) {
  return Guarded<unsigned char>(0, [&]() -> unsigned char {
    Certificate cert;
    if (!DecodeDer(der, length, &cert)) return AddFailed(ctx);
    return AddDecoded(ctx, cert, quillon::castore::kSourceCaller);
  });
}

unsigned char cache_addCACertPEM(void* ctx, char* pem) {
  return cache_addCACertPEM(ctx, pem, nullptr);
}

unsigned char cache_addCACertPEM(void* ctx, char* pem, unsigned long* error) {
  const unsigned char added = Guarded<unsigned char>(0, [&]() -> unsigned char {
    Certificate cert;
    if (!DecodePem(pem, &cert)) return AddFailed(ctx);
    return AddDecoded(ctx, cert, quillon::castore::kSourceCaller);
  });
  if (!added && error) *error = quillon::api::kFailedToAddCaList;
  return added;
}

// ---------------------------------------------------------------------------
// Removing

unsigned char cache_removeCACertPEM(void* ctx, char* pem) {
  return Guarded<unsigned char>(0, [&] {
    Certificate cert;
    const bool decoded = DecodePem(pem, &cert);
    return RemoveDecoded(ctx, decoded, cert);
  });
}

unsigned char cache_removeCACertDER(void* ctx, unsigned char* der, unsigned int length) {
  return Guarded<unsigned char>(0, [&] {
    Certificate cert;
    const bool decoded = DecodeDer(der, length, &cert);
    return RemoveDecoded(ctx, decoded, cert);
  });
}

unsigned char cache_removeCACert(void*, Name* subject, Name* issuer, BigInteger serial) {
  return Guarded<unsigned char>(0, [&]() -> unsigned char {
    if (!subject || !issuer) return 0;
    return WithMutableStore(
        [&](CaStore& store) { return store.remove(*subject, *issuer, serial) ? 1 : 0; });
  });
}

unsigned char cache_removeSourceCACerts(void*, int source) {
  return Guarded<unsigned char>(0, [&]() -> unsigned char {
    WithMutableStore([&](CaStore& store) {
      store.removeSource(source);
      return 0;
    });
    return 1;
  });
}

void cache_clean(void*) {
  GuardedVoid([] {
    WithMutableStore([](CaStore& store) {
      store.clear();
      return 0;
    });
    // The CRL table is emptied here too, under the CRL table guard, once the
    // CRL cache exists in this library.
  });
}

// ---------------------------------------------------------------------------
// Looking up

int cache_getCACertsNum(void*) {
  return Guarded<int>(0, [] {
    return WithStore([](const CaStore& store) { return store.count(); });
  });
}

int cache_getCACerts(void*, Name* name) {
  return Guarded<int>(-1, [&] {
    if (!name) return -1;
    static thread_local std::string key;  // storage kept, as for cache_trustedCA's
    quillon::pki::PrintName(*name, &key);
    return WithStore([&](const CaStore& store) { return store.findEntry(key); });
  });
}

Certificate* cache_getCACert(void*, int entry, int record) {
  return Guarded<Certificate*>(nullptr, [&]() -> Certificate* {
    return WithStore([&](const CaStore& store) -> Certificate* {
      const CaRecord* r = store.record(entry, record);
      const Certificate* c = r ? r->cert() : nullptr;
      return c ? new Certificate(*c) : nullptr;
    });
  });
}

int cache_getCertIndex(void*, int entry, Name* issuer, BigInteger serial) {
  return Guarded<int>(-1, [&] {
    if (!issuer) return -1;
    static thread_local std::string id;  // storage kept, as for cache_trustedCA's key
    quillon::castore::RecordId(*issuer, serial, &id);
    return WithStore([&](const CaStore& store) { return store.findRecord(entry, id); });
  });
}

namespace {
template <class Signed>
int FindIssuerIndex(Signed* object, int entry, AuthorityKeyIdentifier* aki) {
  return Guarded<int>(-1, [&] {
    if (!object || !object->isDecoded()) return -1;
    // The library's device as it is now: none before cache_init or after
    // cache_finalize, and then only a key identifier can find the issuer.
    // The device takes its own guard around each signature check.
    const quillon::pki::CryptoDevice* device = Library::Get().device();
    return WithStore(
        [&](const CaStore& store) { return store.findIssuer(entry, *object, aki, device); });
  });
}
}  // namespace

int cache_getCAIndex(void*, Certificate* cert, int entry, AuthorityKeyIdentifier* aki) {
  return FindIssuerIndex(cert, entry, aki);
}

int cache_getCAIndex(void*, AttributeCertificate* cert, int entry,
                     AuthorityKeyIdentifier* aki) {
  return FindIssuerIndex(cert, entry, aki);
}

int cache_getCAIndex(void*, CertificateList* crl, int entry, AuthorityKeyIdentifier* aki) {
  return FindIssuerIndex(crl, entry, aki);
}

unsigned char cache_trustedCA(void*, unsigned char* der, unsigned long length) {
  return Guarded<unsigned char>(0, [&]() -> unsigned char {
    if (!der || length == 0) return 0;
    // The issuer's name, not the subject's: is the CA that issued it trusted?
    // No signature is checked. Only the issuer's text is needed, so the
    // certificate is checked as decoding it would check it, and its issuer
    // printed from its bytes, without making the objects.
    // The key's storage is kept per thread: callers ask this for every
    // certificate they check, and the text is rarely longer than before.
    static thread_local std::string key;
    if (!quillon::pki::PeekCertificateIssuerText(quillon::der::Input(der, length), &key)) return 0;
    return WithStore([&](const CaStore& store) { return store.findEntry(key) >= 0 ? 1 : 0; });
  });
}

int cache_getCACertSource(void*, char* pem) {
  return Guarded<int>(-1, [&] {
    Certificate cert;
    return DecodePem(pem, &cert) ? SourceOf(cert) : -1;
  });
}

int cache_getCACertSource(void*, unsigned char* der, unsigned int length) {
  return Guarded<int>(-1, [&] {
    Certificate cert;
    return DecodeDer(der, length, &cert) ? SourceOf(cert) : -1;
  });
}

int cache_getCACertSource(void*, Name* subject, Name* issuer, BigInteger serial) {
  return Guarded<int>(-1, [&] {
    if (!subject || !issuer) return -1;
    const std::string key = quillon::castore::KeyText(*subject);
    const std::string id = quillon::castore::RecordId(*issuer, serial);
    return WithStore([&](const CaStore& store) {
      const int e = store.findEntry(key);
      const CaRecord* r = store.record(e, store.findRecord(e, id));
      return r ? r->source : -1;
    });
  });
}

int cache_getCACertSource(void*, int entry, int record) {
  return Guarded<int>(-1, [&] {
    return WithStore([&](const CaStore& store) {
      const CaRecord* r = store.record(entry, record);
      return r ? r->source : -1;
    });
  });
}

// ---------------------------------------------------------------------------
// The CA list file

unsigned char cache_loadCACertList(void* ctx) { return cache_loadCACertList(ctx, nullptr); }

unsigned char cache_loadCACertList(void* ctx, unsigned long* error) {
  const bool loaded = Guarded<bool>(false, [&] { return quillon::api::LoadCaList(AsCache(ctx)); });
  if (!loaded && error) *error = quillon::api::kFailedToAccessCaList;
  return loaded ? 1 : 0;
}

unsigned char cache_saveCACertList(void* ctx) {
  return Guarded<unsigned char>(0, [&] { return quillon::api::SaveCaList(AsCache(ctx)) ? 1 : 0; });
}

unsigned char cache_initCACertListPEM(void* ctx, char* file) {
  return Guarded<unsigned char>(0, [&] {
    return quillon::api::ReadPemList(AsCache(ctx), file, quillon::api::PemListMode::kInitialise)
               ? 1
               : 0;
  });
}

unsigned char cache_importCACertsListPEM(void* ctx, char* file) {
  cache_clean(ctx);
  cache_initCACertListPEM(ctx, file);
  return cache_saveCACertList(ctx);
}

unsigned char cache_addCACertListPEM(void* ctx, char* file) {
  return Guarded<unsigned char>(0, [&] {
    return quillon::api::ReadPemList(AsCache(ctx), file, quillon::api::PemListMode::kAdd) ? 1 : 0;
  });
}

// ---------------------------------------------------------------------------
// Trusted-list metadata of a record

char* cache_getCountryCode(void*, int caIndex, int recordIndex) {
  return Guarded<char*>(nullptr, [&] {
    return WithMetadata(caIndex, recordIndex, [](const TSLMetadata* m) -> char* {
      return m ? m->getCountry() : nullptr;
    });
  });
}

char* cache_getServiceStatus(void*, int caIndex, int recordIndex) {
  return Guarded<char*>(nullptr, [&] {
    return WithMetadata(caIndex, recordIndex, [](const TSLMetadata* m) -> char* {
      return m ? m->getServiceStatus() : nullptr;
    });
  });
}

char* cache_getServiceType(void*, int caIndex, int recordIndex) {
  return Guarded<char*>(nullptr, [&] {
    return WithMetadata(caIndex, recordIndex, [](const TSLMetadata* m) -> char* {
      return m ? m->getServiceType() : nullptr;
    });
  });
}

unsigned char cache_getQualified(void*, int caIndex, int recordIndex) {
  return Guarded<unsigned char>(0xFF, [&] {
    return WithMetadata(caIndex, recordIndex, [](const TSLMetadata* m) -> unsigned char {
      if (!m) return 0xFF;
      const char* type = m->serviceType();
      return type && (std::strcmp(type, kQualifiedCaType) == 0 ||
                      std::strcmp(type, kQualifiedTsaType) == 0)
                 ? 1
                 : 0;
    });
  });
}
