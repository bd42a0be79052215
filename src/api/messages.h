// The five-language message catalogue.
//
// Every log line and every reported failure of the library is a row of this
// catalogue. A row has five constant UTF-8 texts in the fixed column order
// Italian (0), English (1), German (2), French (3), Spanish (4); the column
// index is the language code set by cache_setLang.
//
// The table has 267 rows in two bands:
//   rows   0..125  information band, message codes 4608..4733 (code = 4608 + row)
//   rows 126..266  error band,       message codes 5120..5260 (code = 5120 + row - 126)
// Codes 4734..5119, below 4608 and above 5260 have no row.
//
// The English column is the product's own text byte for byte, including its
// misspellings ("Certificare", "Embdeded", "incorect", ...): callers and
// logs compare against it, so it must not be corrected. The other columns
// are translations. Texts hold at most one "%s" or "%d" placeholder, which the
// logger fills; a few hold a line break. Every translation keeps
// the English row's placeholders in the same order and its line breaks.
//
// Codes are stable and append-only: never renumber or reuse a row. Many rows
// belong to other products of the same catalogue and are unused here; they
// are kept so that the numbers stay put.
#pragma once

namespace quillon::api {

constexpr unsigned kFirstInfoCode = 4608, kLastInfoCode = 4733,
                   kFirstErrorCode = 5120, kLastErrorCode = 5260;
constexpr int kInfoRows = static_cast<int>(kLastInfoCode - kFirstInfoCode + 1);     // 126
constexpr int kErrorRows = static_cast<int>(kLastErrorCode - kFirstErrorCode + 1);  // 141
constexpr int kMessageRows = 267;
constexpr int kLanguages = 5;
static_assert(kInfoRows + kErrorRows == kMessageRows);

// Column index of each language (the value given to cache_setLang).
enum MessageLanguage : unsigned {
  kLangItalian = 0,  // the library's default
  kLangEnglish = 1,
  kLangGerman = 2,
  kLangFrench = 3,
  kLangSpanish = 4,
};

// Row index of message code |code|: code - 4608 in the information band,
// code - 5120 + 126 in the error band; -1 for a code that has no row.
constexpr int MessageRow(unsigned long code) {
  if (code >= kFirstInfoCode && code <= kLastInfoCode)
    return static_cast<int>(code - kFirstInfoCode);
  if (code >= kFirstErrorCode && code <= kLastErrorCode)
    return kInfoRows + static_cast<int>(code - kFirstErrorCode);
  return -1;
}

// Inverse of MessageRow: the message code of row |row|, or 0 when |row| is
// outside 0..kMessageRows-1.
constexpr unsigned long MessageCodeOfRow(int row) {
  if (row < 0 || row >= kMessageRows) return 0;
  if (row < kInfoRows) return kFirstInfoCode + static_cast<unsigned long>(row);
  return kFirstErrorCode + static_cast<unsigned long>(row - kInfoRows);
}

// The text of message code |code| in language |language| (0..4): a pointer to
// a static UTF-8 string, never to be freed. Returns nullptr when the code has
// no row or |language| >= kLanguages.
//
// cache_setLang does not range-check the language it stores, so this look-up
// does: it answers nullptr rather than reading past the row, and callers that
// print the result must handle nullptr (for example by falling back to
// kLangEnglish).
const char* MessageText(unsigned long code, unsigned language);

// The text of row |row| (0..kMessageRows-1) in language |language|; nullptr
// when either is out of range.
const char* MessageTextRow(int row, unsigned language);

// Named message codes, each named after its English text (quoted beside it),
// so that no code outside this file writes a raw number. The unscoped enum
// converts to unsigned long, so a constant can be stored as an error code or
// passed to MessageText directly.
enum MessageCode : unsigned long {
  // Information band: progress and information lines (rows 0..125).
  kSettingDisabled = 4608,  // "disabled"
  kSettingEnabled = 4609,  // "enabled"
  kAlwaysDownloadFromNet = 4610,  // "always download from the Net"
  kUseOnlyLocalOnes = 4611,  // "use only local ones"
  kDownloadFromNetOncePerSession = 4612,  // "download from the Net once per session"
  kDownloadFromNetWhenExpired = 4613,  // "download from the Net when expired"
  kOcspUri = 4614,  // "OCSP uri %s"
  kOcspResponseDate = 4615,  // "OCSP response date: %s"
  kInputFile = 4616,  // "Input File: %s"
  kSerialNumber = 4617,  // "Serial number: %s"
  kSigner = 4618,  // "Signer:\n%s"
  kIssuer = 4619,  // "Issuer:\n%s"
  kStartOcspResponseVerification = 4620,  // "Start verification of OCSP response"
  kSignatureVerified = 4621,  // "Signature verified"
  kAllSignaturesVerified = 4622,  // "All signatures have been verified"
  kEndOcspResponseVerification = 4623,  // "End verification of OCSP response"
  kExtractedFile = 4624,  // "Extracted file: %s"
  kSignatureDate = 4625,  // "Signature date: %s"
  kCrlDate = 4626,  // "CRL date: %s"
  kTimestampSerialNumber = 4627,  // "Timestamp serial number: %s"
  kTimestampDate = 4628,  // "Timestamp date: %s"
  kOcspAlignmentDate = 4629,  // "OCSP alignment date: %s"
  kTimestampVerified = 4630,  // "TimeStamp verified"
  kDigitalSignatureCheckEnabled = 4631,  // "Digital Signature check: enabled"
  kDigitalSignatureCheckDisabled = 4632,  // "Digital Signature check: disabled"
  kTimestampCheckEnabled = 4633,  // "Timestamp check: enabled"
  kTimestampCheckDisabled = 4634,  // "Timestamp check: disabled"
  kPkcs7VerificationReceivedFrom = 4635,  // "PKCS7 verification received from %s"
  kCmsVerificationReceivedFrom = 4636,  // "CMS verification received from %s"
  kNewCrlAddedToCache = 4637,  // "New CRL added to cache"
  kCrlInCacheUpdated = 4638,  // "CRL in cache has been updated"
  kHttpProxyAddress = 4639,  // "HTTP proxy address %s"
  kSocksProxyAddress = 4640,  // "SOCKS proxy address %s"
  kSettingNotUsed = 4641,  // "not used"
  kCaListInitializationInProgress = 4642,  // "CA certificates list initialization in progress"
  kLoadingCaList = 4643,  // "Loading CA certificates list"
  kLoadingCrlCache = 4644,  // "Loading CRLs cache"
  kCrlCacheUpdateInProgress = 4645,  // "CRLs cache updating in progress"
  kCrlCacheUpdateCompleted = 4646,  // "CRLs cache update completed"
  kServiceStarted = 4647,  // "Service started"
  kServiceStopped = 4648,  // "Service stopped"
  kServiceSuspended = 4649,  // "Service suspended"
  kServiceReactivated = 4650,  // "Service reactivated"
  kWaitingOnPort = 4651,  // "Waiting on port %d"
  kConnectionNotAuthorizedFrom = 4652,  // "Connection not authorized from %s"
  kReceivedStatusCheckFrom = 4653,  // "Received status check from %s"
  kCaListLoadingCompleted = 4654,  // "CA certificates list loading completed"
  kCrlCacheLoadingCompleted = 4655,  // "CRLs cache loading completed"
  kCaCertificateFromTsl = 4656,  // "CA certificate from TSL"
  kDocument = 4657,  // "Document: %s"
  kCrlForSignedDocuments = 4658,  // "CRL for signed documents"
  kCrlForTimestamps = 4659,  // "CRL for timestamps"
  kPolicyId = 4660,  // "PolicyID: %s"
  kQualifiedCertificateStatements = 4661,  // "Qualified Certificate Statements: %s"
  kQcCompliance = 4662,  // "QcCompliance"
  kQcSscd = 4663,  // "QcSSCD"
  kQcLimitValue = 4664,  // "QcLimitValue: %s"
  kQcRetentionPeriod = 4665,  // "QcRetensionPeriod: %s"
  kGender = 4666,  // "Gender: %s"
  kCountryOfCitizenship = 4667,  // "Country of Citizenship: %s"
  kCountryOfResidence = 4668,  // "Country of Residence: %s"
  kPlaceOfBirth = 4669,  // "Place of Birth: %s"
  kDateOfBirth = 4670,  // "Date of Birth: %s"
  kCountersigner = 4671,  // "Countersigner: %s"
  kServiceActivated = 4672,  // "Service activated"
  kStartCrlDownloadViaHttps = 4673,  // "Starting CRL download via HTTPS"
  kEndCrlDownloadViaHttps = 4674,  // "End of CRL download via HTTPS"
  kFreeText = 4675,  // "%s"
  kFreeText2 = 4676,  // "%s"
  kCaCertificatesIncludedInList = 4677,  // "CA certificates included into certificate list: %d"
  kCaListInitialization = 4678,  // "CA certificates list initialization"
  kInitializationCompleted = 4679,  // "Initialization completed"
  kEndOfExecution = 4680,  // "End of execution"
  kCaListInitializationCompleted = 4681,  // "CA certificates list initialization completed"
  kStartSignatureVerification = 4682,  // "Start signature verification"
  kEndSignatureVerification = 4683,  // "End of signature verification"
  kStartTimestampVerification = 4684,  // "Start timestamp verification"
  kEndTimestampVerification = 4685,  // "End of timestamp verification"
  kStartCrlCacheCopyToDisk = 4686,  // "Start copying the CRLs cache to disk"
  kEndCrlCacheCopyToDisk = 4687,  // "End of CRLs cache copy to disk"
  kStartCaListCopyToDisk = 4688,  // "Starting CA certificates list copying to disk"
  kEndCaListCopyToDisk = 4689,  // "CA certificates list copy on disk finished"
  kStartDocumentDigestsCalculation = 4690,  // "Start document digests calculation"
  kEndDocumentDigestsCalculation = 4691,  // "End document digests calculation"
  kStartOcspAccess = 4692,  // "Start OCSP access"
  kEndOcspAccessNotRevoked = 4693,  // "End of OCSP access: certificate not revoked"
  kEndOcspAccessRevoked = 4694,  // "End of OCSP access: certificate revoked"
  kCaListAdditionCompleted = 4695,  // "CA certificates list addition completed"
  kStartCrlDownloadViaLdap = 4696,  // "Start CRL download via LDAP"
  kEndCrlDownloadViaLdap = 4697,  // "End of CRL download via LDAP"
  kStartCrlDownloadViaHttp = 4698,  // "Start CRL download via HTTP"
  kEndCrlDownloadViaHttp = 4699,  // "End of CRL download via HTTP"
  kStartCrlTimestampRequestViaLdap = 4700,  // "Start CRL timestamp request via LDAP"
  kEndCrlTimestampRequestViaLdap = 4701,  // "End of CRL timestamp request via LDAP"
  kStartCrlTimestampRequestViaHttp = 4702,  // "Start CRL timestamp request via HTTP"
  kEndCrlTimestampRequestViaHttp = 4703,  // "End of CRL timestamp request via HTTP"
  kStartCrlCheck = 4704,  // "Start CRL check"
  kEndCrlCheck = 4705,  // "End of CRL check"
  kStartCaPathCheck = 4706,  // "Start CA path check"
  kEndCaPathCheck = 4707,  // "End of CA path check"
  kStartSearchWithinCrl = 4708,  // "Start search within CRL"
  kEndSearchWithinCrlRevoked = 4709,  // "End of search within CRL: certificate revoked"
  kEndSearchWithinCrlNotRevoked = 4710,  // "End of search within CRL: certificate not revoked"
  kCrlsInCache = 4711,  // "CRLs in cache: %d"
  kCrlUrl = 4712,  // "CRL: %s"
  kStartSearchForCrl = 4713,  // "Start search for CRL"
  kEndSearchForCrlFound = 4714,  // "End of search for CRL: CRL found"
  kEndSearchForCrlNotFound = 4715,  // "End of search for CRL: CRL not found"
  kLockCrlMutex = 4716,  // "Lock crlMutex"
  kUnlockCrlMutex = 4717,  // "Unlock crlMutex"
  kWaitOnSemaphore = 4718,  // "Wait on semaphore %d"
  kPostOnSemaphore = 4719,  // "Post on semaphore %d"
  kLdapTimestampNull = 4720,  // "LDAP timestamp NULL"
  kHttpTimestampNull = 4721,  // "HTTP timestamp NULL"
  kCaCrlCheckNotPerformed = 4722,  // "CA CRL check was not performed"
  kCaListAdditionInProgress = 4723,  // "Addition to the list of CA certificates in progress"
  kCrlCheckDisabled = 4724,  // "CRL check disabled"
  kStartCrlTimestampRequestViaHttps = 4725,  // "Start CRL timestamp request via HTTPS"
  kEndCrlTimestampRequestViaHttps = 4726,  // "End of CRL timestamp request via HTTPS"
  kStartAtsHashIndexCheck = 4727,  // "Start ATSHashIndex attribute check"
  kEndAtsHashIndexCheck = 4728,  // "End of ATSHashIndex attribute check"
  kTslDownloadRequestReceivedFrom = 4729,  // "TSL download request received from %s"
  kEuropeanTslDownloaded = 4730,  // "European TSL downloaded"
  kTslDownloaded = 4731,  // "TSL [%s] downloaded"
  kEmbeddedCertificatesAdditionRequestFrom = 4732,  // "Embedded certificates addition request received from %s"
  kEmbeddedCertificatesRemovalRequestFrom = 4733,  // "Embdeded certificates removal request received from %s"

  // Error band: failures, stored as error codes and logged (rows 126..266).
  kInternalError = 5120,  // "Internal error"
  kArgumentMissing = 5121,  // "The argument is missing, try Ormelo -h"
  kFileReadingImpossible = 5122,  // "File reading impossible"
  kFileWithoutPkcs7Envelope = 5123,  // "File does not contain a PKCS#7 envelope"
  kPkcs7WithoutSignedData = 5124,  // "PKCS#7 envelope does not contain a SignedData"
  kSignerCertificateNotFound = 5125,  // "Signer certificate not found"
  kSignerCertificateNotVerified = 5126,  // "Signer certificate not verified"
  kSignerCertificateExpired = 5127,  // "Signer certificate expired"
  kSignerCertificateRevoked = 5128,  // "Signer certificate revoked"
  kSignerKeyNotEnabledForDigitalSignature = 5129,  // "Signer key not enabled for digital signature"
  kCaCertificateNotFound = 5130,  // "CA certificate not found"
  kInvalidCaCertificate = 5131,  // "Invalid CA certificate"
  kCaCertificateNotVerified = 5132,  // "CA certificate not verified"
  kCaCertificateExpired = 5133,  // "CA certificate expired"
  kCaCertificateRevoked = 5134,  // "CA certificate revoked"
  kCaKeyNotEnabledForDigitalSignature = 5135,  // "CA key not enabled for digital signature"
  kCaKeyNotEnabledForCrlSignature = 5136,  // "CA key not enabled for CRL signature"
  kCrlCouldNotBeDownloaded = 5137,  // "CRL could not be downloaded"
  kCrlSignatureNotVerified = 5138,  // "CRL Signature not verified"
  kCannotOpenOutputFile = 5139,  // "Impossible to open output file"
  kRevocationDate = 5140,  // "Revocation date: %s"
  kReasonNotSpecified = 5141,  // "Not specified"
  kReasonKeyCompromised = 5142,  // "Key compromised"
  kReasonCaKeyCompromised = 5143,  // "CA Key compromised"
  kReasonWithdrawnFromContract = 5144,  // "Withdrawn from contract"
  kReasonCertificateReplaced = 5145,  // "Certificate has been replaced"
  kReasonCertificateNoLongerUsed = 5146,  // "Certificate no longer used"
  kTimestampCertificateExpired = 5147,  // "TimeStamp certificate expired"
  kNotValidSince = 5148,  // "Not valid since:"
  kFailedToAccessCrlCache = 5149,  // "Failed to access the CRLs cache"
  kFailedToAccessCaList = 5150,  // "Failed to access the list of CA certificates"
  kFailedToUpdateCrlCache = 5151,  // "Failed to update the CRLs cache"
  kDetachedVerificationNotAllowedOnM7m = 5152,  // "Detached verifcation not allowed on file m7m"
  kFailedToSaveCaList = 5153,  // "Failed to save the list of CA certificates"
  kDigestAlgorithmNotImplemented = 5154,  // "Digest algorithm not yet implemented"
  kFailedToSaveCrlCache = 5155,  // "Failed to save the CRLs cache"
  kCrlExpired = 5156,  // "CRL expired"
  kTimestampCertificateRevoked = 5157,  // "Timestamp certificate revoked"
  kSignerCertificateNotYetValid = 5158,  // "Signer certificate not yet valid"
  kTimestampCertificateOnHold = 5159,  // "Timestamp certificate is on hold"
  kCaCertificateOnHold = 5160,  // "CA certificate is on hold"
  kSignerCertificateOnHold = 5161,  // "Signer certificate is on hold"
  kSuspensionDate = 5162,  // "Suspension date:"
  kFailedToAccessProxyConfigFile = 5163,  // "Failed to access proxy configuration file"
  kProxyConfigAddressMissing = 5164,  // "Proxy configuration: proxyAddress missing"
  kProxyConfigPortMissing = 5165,  // "Proxy configuration: proxyPort missing"
  kProxyConfigPasswordMissing = 5166,  // "Proxy configuration: proxyPasswd missing"
  kInvalidTimestamp = 5167,  // "Invalid Timestamp"
  kPkcs7WithoutTimestamp = 5168,  // "PKCS#7 envelope does not contain a timestamp"
  kFileWithoutTimestampToken = 5169,  // "File does not contain a timestamp token"
  kFailedToAccessSocksConfigFile = 5170,  // "Failed to access SOCKS configuration file"
  kSocksConfigAddressMissing = 5171,  // "SOCKS configuration: SOCKSAddress missing"
  kSocksConfigPortMissing = 5172,  // "SOCKS configuration: SOCKSPort missing"
  kSocksConfigPasswordMissing = 5173,  // "SOCKS configuration: SOCKSPasswd missing"
  kOrmeloServerNotReachable = 5174,  // "OrmeloServer not reachable"
  kFailedToAccessServerConfigFile = 5175,  // "Failed to access the server configuration file"
  kServerConfigPidFileMissing = 5176,  // "Server configuration: pidFile entry missing"
  kServerConfigMyPortMissing = 5177,  // "Server configuration: myPort entry missing"
  kServerConfigCtlFileMissing = 5178,  // "Server configuration: ctlFile entry missing"
  kServerConfigDenyPermitExclusive = 5179,  // "Server configuration: deny and permit entries are mutually exclusive"
  kErrorOnServicePort = 5180,  // "Error on service port %d"
  kErrorOnControlSocket = 5181,  // "Error on control socket"
  kServerConfigTooManyDenyPermit = 5182,  // "Server configuration: too many deny/permit entries"
  kVirtualMemoryExhausted = 5183,  // "Virtual memory exausted"
  kInputFileUnknownFormat = 5184,  // "Input file with unknown format"
  kSignerCertificateNotX509 = 5185,  // "Signer certificate not compliant with X.509 standard"
  kInvalidDigestInAuthenticatedAttrs = 5186,  // "Invalid digest in authenticatedAttrs"
  kKeyNotEnabledForTimestamping = 5187,  // "Key not enabled for timestamping"
  kCertificateStatusAtSignatureDateUnavailable = 5188,  // "Certificate status at signature date is not available"
  kInvalidSigningCertificateFormat = 5189,  // "Invalid SigningCertificate attribute format"
  kSigningCertificateNotPresent = 5190,  // "SigningCertificate attribute non present"
  kSigningCertificateNotIdentifyingSigner = 5191,  // "SigningCertificate attribute does not identify the signer"
  kFailedToInitCaList = 5192,  // "Failed to initialize the list of CA certificates"
  kOriginalDocumentNotFound = 5193,  // "Original document not found"
  kSignatureDateIncorrectFormat = 5194,  // "Signature date with incorrect format"
  kFailedToAddCaList = 5195,  // "Failed to add to the list of CA certificates"
  kErrorReceivingServiceRequest = 5196,  // "Errore while receiving service request [%s]"
  kControlMessageInvalidOperatingCode = 5197,  // "control message with invalid operating code"
  kInvalidServiceRequest = 5198,  // "Invalid service request"
  kDistributionPointIncorrectFormat = 5199,  // "DistributionPoint with incorrect format"
  kSignatureNotVerified = 5200,  // "Signature not verified"
  kTimestampNotVerified = 5201,  // "Timestamp not verified"
  kDigestOnEmptyDocument = 5202,  // "Digest has been calculated on an empty document"
  kNotAllSignaturesVerified = 5203,  // "Not all the signatures have been verified"
  kFileNotXmlCompliant = 5204,  // "File not compliant with the XML standard"
  kFileWithoutXmlSignature = 5205,  // "File does not contain any XML signature"
  kReferenceUriNotManaged = 5206,  // "Reference URI not yet managed"
  kFileNotPdf14Compliant = 5207,  // "File not compliant with the PDF 1.4 standard"
  kFileWithoutPdfSignature = 5208,  // "File does not contain any PDF signature"
  kTimestampCertificateStatusUnavailable = 5209,  // "Timestamp certificate status is not available"
  kTimestampExpired = 5210,  // "Timestamp expired"
  kTimestampWithoutLongTermPreservation = 5211,  // "Timestamp without mandatory long term preservation"
  kSigningCertificateV2IncorrectFormat = 5212,  // "SigningCertificateV2 attribute with incorrect format"
  kSigningCertificateV2NotIdentifyingSigner = 5213,  // "SigningCertificateV2 attribute does not identify the signer"
  kFailedToGetOcspStatus = 5214,  // "Failed to get OCSP status"
  kOcspHttpError = 5215,  // "OCSP service: HTTP error [%d]"
  kOcspResponseIncorrectFormat = 5216,  // "OCSP service: response with incorrect format"
  kOcspError = 5217,  // "OCSP service: OCSP error [%d]"
  kOcspUnknownCertificate = 5218,  // "OCSP service: unknown certificate"
  kOcspDataExpired = 5219,  // "OCSP service: data expired"
  kDigestAlgorithmNotDeclared = 5220,  // "Digest algorithm not previously declared"
  kOcspResponseSignatureNotVerified = 5221,  // "OCSP service: response signature not verified"
  kCertEncodingNotBer = 5222,  // "Certificare encoding not conform to the BER format"
  kSignatureAffixedAfterJune2011 = 5223,  // "Invalid signature as affixed after June 30, 2011"
  kSignatureBasedOnSha1 = 5224,  // "Invalid signature because it is based on SHA1 algorithm"
  kTimestampNotAgidCompliant = 5225,  // "Timestamp not compliant with AgID technical rules"
  kInvalidVerificationDate = 5226,  // "Invalid verification date: %s"
  kCrlUsedForVerificationExpired = 5227,  // "At least one of the CRL used for verification is expired"
  kEnvelopeNotCompliantWithCurrentLaw = 5228,  // "Cryptographic envelope not compliant with current legislation"
  kDigestNotOnWholeDocument = 5229,  // "Digest has not been calculated on the whole document"
  kEnvelopeNotCompliantWithLawBeforeJune2014 = 5230,  // "Cryptographic envelope not compliant with the legislation prior to June 11, 2014"
  kFileWithoutX509Certificate = 5231,  // "File does not contain a X.509 certificate"
  kPdfSubFilterNotManaged = 5232,  // "PDF SubFilter algorithm not yet managed"
  kSignatureAlgorithmNotImplemented = 5233,  // "Signature algorithm not yet implemented"
  kDistributionPointIncorectFormat = 5234,  // "DistributionPoint with incorect format"
  kFailedToExtractTimestampFromTsd = 5235,  // "Failed to extract timestamp from TSD file"
  kFailedToOpenX509Certificate = 5236,  // "Failed to open X.509 certificate"
  kAuthorityInfoAccessNotPresent = 5237,  // "authorityInfoAccess extension not present"
  kCrlDistributionPointsNotPresent = 5238,  // "cRLDistributionPoints extension not present"
  kAllReasonsDistributionPointNotPresent = 5239,  // "Distribution point for all the reasons is not present"
  kCaCertificateNotTrusted = 5240,  // "CA certificate not trusted"
  kArchiveTimeStampBeforeSignatureDate = 5241,  // "ArchiveTimeStamp before the certified signature date"
  kOcspResponseBeforeSignatureDate = 5242,  // "OCSP response date before the certified signature date"
  kCrlExpiredBeforeSignatureDate = 5243,  // "CRL expired before the certified signature date"
  kDocumentTimeStampBeforeSignatureDate = 5244,  // "DocumentTimeStamp before the certified signature date"
  kFailedToRemoveCaFromList = 5245,  // "Failed to remove CA from CA certificates list"
  kFailedToDownloadEuropeanTsl = 5246,  // "Failed to download European TSL"
  kFailedToDownloadCountryTsl = 5247,  // "Failed to download country TSL"
  kInvalidAtsHashIndex = 5248,  // "invalid ATSHashIndex attribute"
  kAtsHashIndexIncorrectFormat = 5249,  // "ATSHashIndex attribute with incorrect format"
  kFailedToOpenAttributeCertificate = 5250,  // "Failed to open attribute certificate"
  kBothSigningCertificateVersionsPresent = 5251,  // "SigningCertificate and SigningCertificateV2 are both present"
  kAtsHashIndexNotPresent = 5252,  // "ATSHashIndex attribute not present"
  kOcspNoData = 5253,  // "OCSP Service: no data"
  kXmlSigningCertificateObsolete = 5254,  // "XMLSigningCertificate is obsolete"
  kSigningTimeNotPresent = 5255,  // "SigningTime attribute not present"
  kSigningTimeCmsAttributeShouldNotBePresent = 5256,  // "SigningTime CMS attribute should not be present"
  kFailedToCheckCountryTsl = 5257,  // "Failed to check country TSL"
  kFailedToAddEmbeddedCertificates = 5258,  // "Failed to add embeded certificates"
  kDocumentModifiedAfterItsSignature = 5259,  // "Document has been modified after its signature"
  kDocumentModifiedAfterSignature = 5260,  // "Document modified after the signature"
};

static_assert(MessageRow(kSettingDisabled) == 0);
static_assert(MessageRow(kEmbeddedCertificatesRemovalRequestFrom) == kInfoRows - 1);
static_assert(MessageRow(kInternalError) == kInfoRows);
static_assert(MessageRow(kDocumentModifiedAfterSignature) == kMessageRows - 1);

}  // namespace quillon::api
