// TSLMetadata, the register of loaded trusted lists, their DER forms inside
// the CA list file, and the plain _md / _ti records handed to callers.
#include "quillon32/tsl_metadata.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "pki/der.h"
#include "quillon32/quillon32.h"
#include "tsl/tsl_records.h"

namespace {

using quillon::der::Input;
using quillon::tsl::LoadedTSLInfo;
using quillon::tsl::LoadedTslRegister;
using Bytes = std::vector<uint8_t>;

constexpr const char kQc[] = "http://uri.etsi.org/TrstSvc/Svctype/CA/QC";
constexpr const char kGranted[] = "http://uri.etsi.org/TrstSvc/TrustedList/Svcstatus/granted";
constexpr const char kAccredited[] = "http://uri.etsi.org/TrstSvc/Svcstatus/accredited";

std::string Take(char* text) {
  std::string s = text ? text : "<null>";
  std::free(text);
  return s;
}

// A service as it stands, with |history| older entries behind it.
TSLMetadata Service(int history) {
  TSLMetadata m;
  m.setCountry("IT");
  m.setServiceType(kQc);
  m.setServiceName("Servizio di certificazione qualificata");
  m.setServiceStatus(kGranted);
  m.setStatusStartingTime("2016-06-30T22:00:00Z");
  TSLMetadata* tail = &m;
  for (int i = 0; i < history; ++i) {
    auto* h = new TSLMetadata;
    h->setServiceStatus(kAccredited);
    h->setStatusStartingTime(("2010-0" + std::to_string(i + 1) + "-01T00:00:00Z").c_str());
    tail->setHistory(h);
    tail = h;
  }
  return m;
}

Bytes Encode(const TSLMetadata& m) {
  Bytes out;
  quillon::tsl::EncodeTslMetadata(m, &out);
  return out;
}

TEST(TslMetadata, SettersAndGettersCopy) {
  TSLMetadata m;
  EXPECT_FALSE(m.hasCountry());
  EXPECT_EQ(m.getCountry(), nullptr);
  EXPECT_EQ(m.getServiceType(), nullptr);
  EXPECT_EQ(m.getHistory(), nullptr);

  std::string type = kQc;
  m.setServiceType(type.c_str());
  type[0] = 'X';  // the record kept its own copy
  char* got = m.getServiceType();
  ASSERT_NE(got, nullptr);
  EXPECT_STREQ(got, kQc);
  EXPECT_NE(got, m.serviceType());  // a new copy each time
  got[0] = 'Y';
  EXPECT_STREQ(m.serviceType(), kQc);
  std::free(got);

  m.setServiceType(nullptr);
  EXPECT_EQ(m.serviceType(), nullptr);

  m.setCountry("ITALY");  // two characters kept
  EXPECT_EQ(Take(m.getCountry()), "IT");
  m.setCountry("");
  EXPECT_FALSE(m.hasCountry());
}

TEST(TslMetadata, HistoryChainIsOwnedReplacedAndCopiedWhole) {
  TSLMetadata m = Service(3);
  ASSERT_NE(m.history(), nullptr);
  EXPECT_EQ(Take(m.history()->history()->history()->getStatusStartingTime()),
            "2010-03-01T00:00:00Z");

  TSLMetadata* copy = m.copy();
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(*copy, m);
  EXPECT_NE(copy->history(), m.history());  // deep: no record shared
  copy->history()->history()->setServiceName("changed");
  EXPECT_NE(*copy, m);
  cache_releaseTSLMetadata(copy);
  cache_releaseTSLMetadata(nullptr);

  TSLMetadata* history = m.getHistory();
  ASSERT_NE(history, nullptr);
  EXPECT_EQ(*history, *m.history());
  delete history;

  // Linking a new history deletes the old chain (ASan sees a leak otherwise).
  m.setHistory(new TSLMetadata);
  EXPECT_EQ(m.history()->history(), nullptr);
  m.setHistory(nullptr);
  EXPECT_EQ(m.history(), nullptr);

  TSLMetadata assigned;
  assigned = Service(1);
  EXPECT_EQ(assigned, Service(1));
  EXPECT_NE(assigned, Service(2));
}

TEST(TslMetadata, LongHistoryIsDeletedWithoutDeepRecursion) {
  TSLMetadata m;
  TSLMetadata* tail = &m;
  for (int i = 0; i < 200000; ++i) {
    auto* h = new TSLMetadata;
    tail->setHistory(h);
    tail = h;
  }
  TSLMetadata copy(m);
  EXPECT_EQ(copy, m);
}

TEST(TslMetadata, DerFormRoundTrips) {
  TSLMetadata empty;
  TSLMetadata country_only;
  country_only.setCountry("EL");
  TSLMetadata odd;
  odd.setCountry("X");  // one character: the second byte stays zero
  odd.setServiceName("");
  const TSLMetadata cases[] = {empty, country_only, odd, Service(0), Service(1), Service(5)};
  for (const TSLMetadata& m : cases) {
    const Bytes der = Encode(m);
    EXPECT_TRUE(quillon::der::IsStrictDer(Input(der)));
    TSLMetadata back = Service(2);  // replaced whole
    ASSERT_TRUE(quillon::tsl::DecodeTslMetadata(Input(der), &back));
    EXPECT_EQ(back, m);
  }
}

TEST(TslMetadata, DamagedDerIsRefused) {
  const Bytes good = Encode(Service(1));
  struct Case {
    const char* name;
    Bytes der;
  } cases[] = {
      {"empty", {}},
      {"no entry", {0x30, 0x00}},
      {"entry not a SEQUENCE", {0x30, 0x02, 0x05, 0x00}},
      {"country of three octets", {0x30, 0x07, 0x30, 0x05, 0x80, 0x03, 'I', 'T', 'A'}},
      {"fields out of order", {0x30, 0x08, 0x30, 0x06, 0x82, 0x01, 'n', 0x81, 0x01, 't'}},
      {"NUL inside a text", {0x30, 0x06, 0x30, 0x04, 0x81, 0x02, 'a', 0x00}},
      {"unknown field", {0x30, 0x05, 0x30, 0x03, 0x85, 0x01, 'x'}},
      {"trailing bytes",
       [&] {
         Bytes b = good;
         b.push_back(0);
         return b;
       }()},
      {"truncated", Bytes(good.begin(), good.end() - 1)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TSLMetadata out;
    EXPECT_FALSE(quillon::tsl::DecodeTslMetadata(Input(c.der), &out));
  }
  // A history longer than any list has is taken for damage.
  TSLMetadata huge;
  TSLMetadata* tail = &huge;
  for (size_t i = 0; i < quillon::tsl::kMaxHistoryEntries + 1; ++i) {
    tail->setHistory(new TSLMetadata);
    tail = tail->history();
  }
  TSLMetadata out;
  EXPECT_FALSE(quillon::tsl::DecodeTslMetadata(Input(Encode(huge)), &out));
}

LoadedTSLInfo Info(const char* country, int seq, const char* location) {
  LoadedTSLInfo info;
  info.country[0] = country[0];
  info.country[1] = country[1];
  info.sequenceNumber = seq;
  if (location) info.location = location;
  return info;
}

TEST(TslMetadata, RegisterKeepsOneRecordPerCountryAndRoundTrips) {
  LoadedTslRegister reg;
  Bytes nothing;
  reg.encode(&nothing);
  EXPECT_TRUE(nothing.empty());  // an empty register writes nothing

  reg.record(Info("IT", 194, "https://eidas.agid.gov.it/TL/TSL-IT.xml"));
  reg.record(Info("FR", 112, nullptr));
  reg.record(Info("IT", 195, "https://eidas.agid.gov.it/TL/TSL-IT.xml"));  // moves to the end
  ASSERT_EQ(reg.items().size(), 2u);
  EXPECT_EQ(reg.items()[0].country[0], 'F');
  EXPECT_EQ(reg.items()[1].sequenceNumber, 195);
  ASSERT_NE(reg.find("IT"), nullptr);
  for (const char* key : {"ITA", "I", "it", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(reg.find(key), nullptr) << (key ? key : "null");  // exactly two, case matters
  }
  EXPECT_FALSE(reg.remove("DE"));

  for (int seq : {0, -1, 127, 128, -129, 2147483647, -2147483647 - 1}) {
    reg.record(Info("BE", seq, "https://tsl.belgium.be/tsl-be.xml"));
    Bytes der;
    reg.encode(&der);
    EXPECT_TRUE(quillon::der::IsStrictDer(Input(der))) << seq;
    LoadedTslRegister back;
    ASSERT_TRUE(back.decode(Input(der))) << seq;
    EXPECT_EQ(back.items(), reg.items()) << seq;
  }

  Bytes der;
  reg.encode(&der);
  const Bytes bad[] = {
      Bytes(der.begin(), der.end() - 1),
      {0x30, 0x05, 0x30, 0x03, 0x04, 0x01, 'I'},                                  // short country
      {0x30, 0x0A, 0x30, 0x08, 0x04, 0x02, 'I', 'T', 0x02, 0x02, 0x00, 0x01},     // non-minimal
      {0x30, 0x0C, 0x30, 0x0A, 0x04, 0x02, 'I', 'T', 0x02, 0x05, 1, 2, 3, 4, 5},  // 40 bits
  };
  for (const Bytes& b : bad) {
    LoadedTslRegister back = reg;
    EXPECT_FALSE(back.decode(Input(b)));
    EXPECT_EQ(back.items(), reg.items());  // unchanged
  }
}

TEST(TslMetadata, PlainRecordsCarryTheChainAndReleaseOnlyOneRecord) {
  _md* md = quillon::tsl::MakeMetadataChain(Service(2));
  ASSERT_NE(md, nullptr);
  EXPECT_STREQ(md->serviceType, kQc);
  EXPECT_STREQ(md->serviceStatus, kGranted);
  ASSERT_NE(md->next, nullptr);
  EXPECT_EQ(md->next->serviceType, nullptr);
  EXPECT_STREQ(md->next->next->statusStartingTime, "2010-02-01T00:00:00Z");
  EXPECT_EQ(md->next->next->next, nullptr);
  // The caller's walk: texts with cache_releaseCharArray, each record with
  // cache_release_tslMetadata. A release that freed more would be seen by
  // AddressSanitizer as a double free here.
  while (md) {
    _md* next = md->next;
    cache_releaseCharArray(md->serviceType);
    cache_releaseCharArray(md->serviceName);
    cache_releaseCharArray(md->serviceStatus);
    cache_releaseCharArray(md->statusStartingTime);
    cache_release_tslMetadata(md);
    md = next;
  }

  LoadedTslRegister reg;
  EXPECT_EQ(reg.makeInfoChain(), nullptr);
  reg.record(Info("IT", 194, "https://eidas.agid.gov.it/TL/TSL-IT.xml"));
  reg.record(Info("FR", 112, nullptr));
  _ti* ti = reg.makeInfoChain();
  ASSERT_NE(ti, nullptr);
  EXPECT_STREQ(ti->country, "IT");
  EXPECT_EQ(ti->sequenceNumber, 194);
  ASSERT_NE(ti->next, nullptr);
  EXPECT_STREQ(ti->next->country, "FR");
  EXPECT_EQ(ti->next->location, nullptr);
  EXPECT_EQ(ti->next->next, nullptr);
  while (ti) {
    _ti* next = ti->next;
    cache_releaseCharArray(ti->country);
    cache_releaseCharArray(ti->location);
    cache_release_tslInfo(ti);
    ti = next;
  }
  cache_release_tslMetadata(nullptr);
  cache_release_tslInfo(nullptr);
}

}  // namespace
