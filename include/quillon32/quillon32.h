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

#include "quillon32/big_integer.h"
#include "quillon32/cert_list.h"
#include "quillon32/certificate.h"
#include "quillon32/certificate_list.h"
#include "quillon32/export.h"
#include "quillon32/extensions.h"
#include "quillon32/name.h"
#include "quillon32/ocsp_response.h"
#include "quillon32/semaphore.h"
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
