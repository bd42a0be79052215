// Quillon32: trusted CA cache, CRL cache and OCSP client.
//
// The interface is a flat set of functions over opaque context handles:
//   void* ctx = cache_getContext();   // or ocsp_getContext()
//   ... call an operation with ctx, read its result ...
//   unsigned long err = cache_getErrCode(ctx);   // 0xFFFFFFFF: no error
//   cache_releaseContext(ctx);
// Results are unsigned char 1 (yes, success) or 0 (no, failure), int indexes
// with -1 for "not found", or pointers that are null on failure. Objects
// handed out are fresh copies the caller releases with the matching
// cache_release* / ocsp_release* function; objects passed in are copied
// before they are kept. No exception crosses this interface.
//
// Process-wide state (tables, settings, files) is shared by all contexts and
// is not locked: callers serialise calls that change it.
#pragma once

#include "quillon32/attribute_certificate.h"
#include "quillon32/big_integer.h"
#include "quillon32/buffer.h"
#include "quillon32/cert_list.h"
#include "quillon32/certificate.h"
#include "quillon32/certificate_list.h"
#include "quillon32/export.h"
#include "quillon32/extensions.h"
#include "quillon32/name.h"
#include "quillon32/ocsp_response.h"
#include "quillon32/semaphore.h"
#include "quillon32/tsl_metadata.h"
#include "quillon32/version.h"
#include "quillon32/x500_time.h"

// Called during transfers with (0, 0, bytes expected, bytes received so far,
// user pointer); returning 0 aborts the transfer.
typedef int (*cache_receive_callback)(unsigned long, unsigned char, unsigned long, unsigned long,
                                      void*);

// ---------------------------------------------------------------------------
// Initialisation and shutdown

// Initialises the library once per process; later calls return 1 and do
// nothing. |ident| names the process in log lines; |logFile| is the log file
// (null: no log). The CA list file "caCertsList-3.5" and the CRL cache file
// "crlCache" go in the current directory, in |dir|, or in |caDir| and
// |crlDir| (an empty or null |crlDir|: the CA directory). Loads no file.
// Always returns 1.
QUILLON32_API unsigned char cache_init(char* ident, char* logFile);
QUILLON32_API unsigned char cache_init(char* dir, char* ident, char* logFile);
QUILLON32_API unsigned char cache_init(char* caDir, char* crlDir, char* ident, char* logFile);
// Closes the crypto device. Tables and settings stay; cache_init stays a no-op.
QUILLON32_API void cache_finalize();
// The guard of the crypto device, for callers that use the device themselves;
// null before cache_init and after cache_finalize.
QUILLON32_API Semaphore* cache_getCryptoDeviceSemaphore();

// ---------------------------------------------------------------------------
// Contexts

QUILLON32_API void* cache_getContext();
QUILLON32_API void* ocsp_getContext();
QUILLON32_API void cache_releaseContext(void* ctx);  // null ignored
QUILLON32_API void ocsp_releaseContext(void* ctx);   // null ignored

// ---------------------------------------------------------------------------
// Releasing objects the library handed out (each ignores null)

QUILLON32_API void cache_releaseCharArray(char* text);
QUILLON32_API void cache_releaseCertList(CertList* list);
QUILLON32_API void cache_releaseCertificate(Certificate* cert);
QUILLON32_API void cache_releaseCertificateList(CertificateList* crl);
QUILLON32_API void cache_releaseX500Time(X500Time* time);
QUILLON32_API void ocsp_releaseOCSPResponse(OCSPResponse* response);

// ---------------------------------------------------------------------------
// Settings (process-wide unless they take a context)

// CRL download policy: 1 once per session, 2 when expired (default),
// 3 always, 4 never (cached and local CRLs only).
QUILLON32_API void cache_setDownloadCRL(unsigned char mode);
QUILLON32_API void cache_setTimeStampCheck(unsigned char on);
// CRL transfer time-out in seconds (default 60).
QUILLON32_API void cache_setTimeout(int seconds);
// OCSP time-out in seconds (default 15); both setters write the same value.
QUILLON32_API void ocsp_setTimeout(int seconds);
QUILLON32_API void ocsp_setTCPTimeout(int seconds);
// Language of log lines: 0 Italian (default), 1 English, 2 German, 3 French,
// 4 Spanish. The low 8 bits are stored, unchecked: pass 0 to 4.
QUILLON32_API void cache_setLang(int language);
// Location of the EU List of Trusted Lists; forgets the loaded list. At most
// 256 bytes are kept: keep it shorter than 256 characters.
QUILLON32_API void cache_setEUTSLLocation(char* location);
// CRL proxy URI template; at most 256 bytes are kept.
QUILLON32_API void cache_setCrlProxyUri(char* uri);
// libcurl debug log file and CA bundle: at most 259 characters kept; null or
// empty clears the setting.
QUILLON32_API void cache_setCURLlog(const char* file);
QUILLON32_API void cache_setCURLCaCert(const char* file);
QUILLON32_API void cache_setReceiveCallback(cache_receive_callback callback, void* user);
QUILLON32_API void cache_setUseLocalCRLs(void* ctx, unsigned char on);
QUILLON32_API void ocsp_setUseLocalResponses(void* ctx, unsigned char on);

// ---------------------------------------------------------------------------
// Logging

// Log level (0..7; 3 failures, 6 information, 7 start/end of operations) of
// contexts made from now on; 8 and above become 7.
QUILLON32_API void cache_enableLog(unsigned char level);
// Contexts made from now on log nothing.
QUILLON32_API void cache_disableLog();
// Gives an OCSP context a logger at |level| (unchecked), or takes it away.
QUILLON32_API void ocsp_enableLog(void* ctx, unsigned char level);
QUILLON32_API void ocsp_disableLog(void* ctx);

// ---------------------------------------------------------------------------
// Error codes and revocation reports

// The context's error code: 0xFFFFFFFF when none was recorded, otherwise a
// message code between 5120 and 5260.
QUILLON32_API unsigned long cache_getErrCode(void* ctx);
QUILLON32_API unsigned long ocsp_getErrCode(void* ctx);
// The CRL reason of a revoked certificate (0 when none).
QUILLON32_API unsigned char cache_getReason(void* ctx);
QUILLON32_API unsigned char ocsp_getReason(void* ctx);
// Report times: a new copy the caller releases with cache_releaseX500Time,
// or null when the report has none.
QUILLON32_API X500Time* cache_getThisUpdate(void* ctx);
QUILLON32_API X500Time* cache_getNextUpdate(void* ctx);
QUILLON32_API X500Time* cache_getRevocationDate(void* ctx);
QUILLON32_API X500Time* cache_getInvalidSince(void* ctx);
QUILLON32_API X500Time* cache_getExpiredCertsOnCRL(void* ctx);
QUILLON32_API X500Time* ocsp_getThisUpdate(void* ctx);
QUILLON32_API X500Time* ocsp_getNextUpdate(void* ctx);
QUILLON32_API X500Time* ocsp_getRevocationDate(void* ctx);
QUILLON32_API X500Time* ocsp_getInvalidSince(void* ctx);
// Clears the error code and the report (call before each check).
QUILLON32_API void cache_resetReport(void* ctx);
QUILLON32_API void ocsp_resetReport(void* ctx);

// ---------------------------------------------------------------------------
// Trusted-list records handed out (each release ignores null)

QUILLON32_API void cache_releaseTSLMetadata(TSLMetadata* metadata);
// Free only the record passed: its texts (cache_releaseCharArray) and the
// records behind it (walk |next|) stay the caller's to free.
QUILLON32_API void cache_release_tslMetadata(_md* record);
QUILLON32_API void cache_release_tslInfo(_ti* record);

// ---------------------------------------------------------------------------
// CA certificate store
//
// The process-wide table of trusted CA certificates. It holds one entry per
// distinct subject name (compared as text, ignoring ASCII letter case), at
// most 2048 entries; each entry holds the certificates (records) with that
// subject, told apart by issuer name and serial number. Entries are indexed
// 0..cache_getCACertsNum()-1 in the order their subjects arrived, records
// 0..n-1 within their entry. Every record keeps its source:
//   1 a trusted list (with its metadata), 2 a PEM list file read by
//   cache_initCACertListPEM, 3 the caller, 4 the caller, but never replacing
//   a record already present; any other value is the caller's own.
// Adding a certificate whose record exists replaces it and moves it to the
// end of its entry (source 4: the old record stays). A failed addition
// records 5195 "Failed to add to the list of CA certificates" in the context
// and its log.

// Adds the certificate in |file|: DER first, then PEM. Source 3.
QUILLON32_API unsigned char cache_addCACert(void* ctx, char* file);
// Adds a copy of |cert| (the caller keeps it), with source 3 or |source|.
QUILLON32_API unsigned char cache_addCACert(void* ctx, Certificate* cert);
QUILLON32_API unsigned char cache_addCACert(void* ctx, Certificate* cert, int source);
// Adds the certificate in |der|. Source 3.
QUILLON32_API unsigned char cache_addCACert(void* ctx, unsigned char* der, unsigned int length);
QUILLON32_API unsigned char cache_addCACertDER(void* ctx, unsigned char* der, unsigned int length);
// Adds the first certificate in the PEM text |pem|. Source 3. On failure the
// second form also stores 5195 in *error (when not null).
QUILLON32_API unsigned char cache_addCACertPEM(void* ctx, char* pem);
QUILLON32_API unsigned char cache_addCACertPEM(void* ctx, char* pem, unsigned long* error);

// Removes the record of the certificate given (PEM text or DER); an entry
// left without records goes, and the entries behind it move up. 0 when the
// certificate does not decode (logged with 5195) or is not in the table.
QUILLON32_API unsigned char cache_removeCACertPEM(void* ctx, char* pem);
QUILLON32_API unsigned char cache_removeCACertDER(void* ctx, unsigned char* der, unsigned int length);
// Removes the record with that subject, issuer and serial; 0 when none.
QUILLON32_API unsigned char cache_removeCACert(void* ctx, Name* subject, Name* issuer, BigInteger serial);
// Removes records of |source|, walking each entry by position: of two
// adjacent records of that source only the first goes, so a second call
// removes the others. Entries left empty go. Returns 1.
QUILLON32_API unsigned char cache_removeSourceCACerts(void* ctx, int source);
// Empties the CA table.
QUILLON32_API void cache_clean(void* ctx);

// The number of entries (distinct subjects, not certificates).
QUILLON32_API int cache_getCACertsNum(void* ctx);
// The index of the entry for subject |name|, or -1.
QUILLON32_API int cache_getCACerts(void* ctx, Name* name);
// A new copy of the certificate of record |record| in entry |entry|, released
// with cache_releaseCertificate; null when there is no such record.
QUILLON32_API Certificate* cache_getCACert(void* ctx, int entry, int record);
// The index of the record in entry |entry| with that issuer and serial, or -1.
QUILLON32_API int cache_getCertIndex(void* ctx, int entry, Name* issuer, BigInteger serial);
// The index of the record in entry |entry| whose certificate issued the
// object: with |aki| (may be null), the first record whose subject key
// identifier equals its key identifier; otherwise, or when none does, the
// first whose public key verifies the object's signature. -1 when none.
QUILLON32_API int cache_getCAIndex(void* ctx, Certificate* cert, int entry, AuthorityKeyIdentifier* aki);
QUILLON32_API int cache_getCAIndex(void* ctx, AttributeCertificate* cert, int entry,
                                   AuthorityKeyIdentifier* aki);
QUILLON32_API int cache_getCAIndex(void* ctx, CertificateList* crl, int entry, AuthorityKeyIdentifier* aki);
// 1 when the DER certificate decodes and the table has an entry for its
// issuer's name. No signature is checked.
QUILLON32_API unsigned char cache_trustedCA(void* ctx, unsigned char* der, unsigned long length);
// The source of a record, found by certificate (PEM text or DER), by
// subject, issuer and serial, or by entry and record index; -1 when none.
QUILLON32_API int cache_getCACertSource(void* ctx, char* pem);
QUILLON32_API int cache_getCACertSource(void* ctx, unsigned char* der, unsigned int length);
QUILLON32_API int cache_getCACertSource(void* ctx, Name* subject, Name* issuer, BigInteger serial);
QUILLON32_API int cache_getCACertSource(void* ctx, int entry, int record);

// Trusted-list metadata of record |recordIndex| in entry |caIndex|: the
// two-letter country, the service status and the service type as new texts
// (cache_releaseCharArray), null when the record has no such value or does
// not exist; cache_getQualified: 1 for a qualified CA or time-stamping
// service type, 0 for another, 0xFF for a record without metadata.
QUILLON32_API char* cache_getCountryCode(void* ctx, int caIndex, int recordIndex);
QUILLON32_API char* cache_getServiceStatus(void* ctx, int caIndex, int recordIndex);
QUILLON32_API char* cache_getServiceType(void* ctx, int caIndex, int recordIndex);
QUILLON32_API unsigned char cache_getQualified(void* ctx, int caIndex, int recordIndex);

// ---------------------------------------------------------------------------
// CA list file
//
// The CA table, with each record's source and trusted-list metadata and the
// register of loaded trusted lists, lives on disk in the file
// "caCertsList-3.5" of the CA directory given to cache_init. The file is
// replaced atomically and is readable and writable by its owner only.

// Replaces the table with the file's content (its first 2048 entries).
// 0 when the file is missing, unreadable or damaged: the table stays as it
// was, and the second form stores 5150 "Failed to access the list of CA
// certificates" in *error (when not null).
QUILLON32_API unsigned char cache_loadCACertList(void* ctx);
QUILLON32_API unsigned char cache_loadCACertList(void* ctx, unsigned long* error);
// Writes the table to the file. 0, and nothing written, when the table is
// empty and no trusted list is loaded, or when the write fails (5153 in the
// log; the old file is then untouched).
QUILLON32_API unsigned char cache_saveCACertList(void* ctx);
// Replaces the table with the certificates of a PEM file, source 2. 0 when
// the file cannot be read, or at the first block that is no certificate or
// does not fit (the certificates read before stay).
QUILLON32_API unsigned char cache_initCACertListPEM(void* ctx, char* file);
// cache_clean, cache_initCACertListPEM, then cache_saveCACertList; the result
// is the save's.
QUILLON32_API unsigned char cache_importCACertsListPEM(void* ctx, char* file);
// Adds the certificates of a PEM file, source 3, keeping the table's content.
// 0 as for cache_initCACertListPEM.
QUILLON32_API unsigned char cache_addCACertListPEM(void* ctx, char* file);
