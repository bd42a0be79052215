// TSLMetadata, the register of loaded trusted lists, their DER forms inside
// the CA list file, and the plain _md / _ti records handed to callers.
#include "quillon32/tsl_metadata.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "pki/der.h"
#include "quillon32/quillon32.h"
#include "tsl/tsl_records.h"

namespace {

using quillon::der::Input;
using quillon::tsl::LoadedTslRegister;
using Bytes = std::vector<uint8_t>;

constexpr const char kQc[] = "http://uri.etsi.org/TrstSvc/Svctype/CA/QC";
constexpr const char kGranted[] = "http://uri.etsi.org/TrstSvc/TrustedList/Svcstatus/granted";

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
    tail->setHistory(new TSLMetadata);
    tail = tail->history();
    tail->setServiceStatus("http://uri.etsi.org/TrstSvc/Svcstatus/accredited");
    tail->setStatusStartingTime(("2010-0" + std::to_string(i + 1) + "-01T00:00:00Z").c_str());
  }
  return m;
}

// An empty record with |n| empty history entries behind it.
TSLMetadata Chain(size_t n) {
  TSLMetadata m;
  TSLMetadata* tail = &m;
  for (size_t i = 0; i < n; ++i) {
    tail->setHistory(new TSLMetadata);
    tail = tail->history();
  }
  return m;
}

Bytes Encode(const TSLMetadata& m) {
  Bytes out;
  quillon::tsl::EncodeTslMetadata(m, &out);
  return out;
}

TEST(TslMetadata, RecordsOwnTheirTextsAndHistoryChains) {
  // The country keeps two characters. Copies are deep, and setting a history
  // deletes the chain linked before (AddressSanitizer sees a leak or a double
  // free otherwise).
  TSLMetadata m = Service(3);
  m.setCountry("ITALY");
  char* country = m.getCountry();
  EXPECT_STREQ(country, "IT");
  std::free(country);
  TSLMetadata* copy = m.copy();
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(*copy, m);
  copy->history()->history()->setServiceName("changed");
  EXPECT_NE(*copy, m);
  copy->setHistory(new TSLMetadata);
  EXPECT_EQ(copy->history()->history(), nullptr);
  cache_releaseTSLMetadata(copy);

  // A long chain is copied and deleted without deep recursion.
  const TSLMetadata long_chain = Chain(200000);
  EXPECT_EQ(TSLMetadata(long_chain), long_chain);
}

TEST(TslMetadata, DerFormRoundTripsAndRefusesDamage) {
  TSLMetadata country_only, one_character;
  country_only.setCountry("EL");
  one_character.setCountry("X");  // the second byte stays zero
  one_character.setServiceName("");
  for (const TSLMetadata& m : {TSLMetadata(), country_only, one_character, Service(5)}) {
    const Bytes der = Encode(m);
    EXPECT_TRUE(quillon::der::IsStrictDer(Input(der)));
    TSLMetadata back = Service(2);  // replaced whole
    ASSERT_TRUE(quillon::tsl::DecodeTslMetadata(Input(der), &back));
    EXPECT_EQ(back, m);
  }

  const Bytes good = Encode(Service(1));
  Bytes trailing = good;
  trailing.push_back(0);
  const struct {
    const char* name;
    Bytes der;
  } cases[] = {
      {"no entry", {0x30, 0x00}},
      {"country of three octets", {0x30, 0x07, 0x30, 0x05, 0x80, 0x03, 'I', 'T', 'A'}},
      {"fields out of order", {0x30, 0x08, 0x30, 0x06, 0x82, 0x01, 'n', 0x81, 0x01, 't'}},
      {"NUL inside a text", {0x30, 0x06, 0x30, 0x04, 0x81, 0x02, 'a', 0x00}},
      {"trailing bytes", trailing},
      {"truncated", Bytes(good.begin(), good.end() - 1)},
      {"longer history than any list has", Encode(Chain(quillon::tsl::kMaxHistoryEntries + 1))},
  };
  for (const auto& c : cases) {
    TSLMetadata out;
    EXPECT_FALSE(quillon::tsl::DecodeTslMetadata(Input(c.der), &out)) << c.name;
  }
}

TEST(TslMetadata, RegisterKeepsOneRecordPerCountryAndRoundTrips) {
  LoadedTslRegister reg;
  reg.record({{'I', 'T'}, 194, "https://eidas.agid.gov.it/TL/TSL-IT.xml"});
  reg.record({{'F', 'R'}, 112, std::nullopt});
  reg.record({{'I', 'T'}, 195, "https://eidas.agid.gov.it/TL/TSL-IT.xml"});  // moves to the end
  ASSERT_EQ(reg.items().size(), 2u);
  EXPECT_EQ(reg.items()[1].sequenceNumber, 195);
  EXPECT_NE(reg.find("IT"), nullptr);
  EXPECT_EQ(reg.find("it"), nullptr);  // case matters

  for (int seq : {0, -1, 128, -129, 2147483647, -2147483647 - 1}) {
    reg.record({{'B', 'E'}, seq, "https://tsl.belgium.be/tsl-be.xml"});
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
  // The caller's walk: texts with cache_releaseCharArray, each record with
  // its release function. A release that freed more would be a double free
  // here under AddressSanitizer.
  _md* md = quillon::tsl::MakeMetadataChain(Service(2));
  ASSERT_NE(md, nullptr);
  EXPECT_STREQ(md->serviceStatus, kGranted);
  ASSERT_NE(md->next, nullptr);
  ASSERT_NE(md->next->next, nullptr);
  EXPECT_STREQ(md->next->next->statusStartingTime, "2010-02-01T00:00:00Z");
  EXPECT_EQ(md->next->next->next, nullptr);
  while (md) {
    _md* next = md->next;
    for (char* text : {md->serviceType, md->serviceName, md->serviceStatus,
                       md->statusStartingTime}) {
      cache_releaseCharArray(text);
    }
    cache_release_tslMetadata(md);
    md = next;
  }

  LoadedTslRegister reg;
  reg.record({{'I', 'T'}, 194, "https://eidas.agid.gov.it/TL/TSL-IT.xml"});
  reg.record({{'F', 'R'}, 112, std::nullopt});
  _ti* ti = reg.makeInfoChain();
  ASSERT_NE(ti, nullptr);
  EXPECT_EQ(ti->sequenceNumber, 194);
  ASSERT_NE(ti->next, nullptr);
  EXPECT_EQ(ti->next->location, nullptr);
  EXPECT_EQ(ti->next->next, nullptr);
  while (ti) {
    _ti* next = ti->next;
    cache_releaseCharArray(ti->country);
    cache_releaseCharArray(ti->location);
    cache_release_tslInfo(ti);
    ti = next;
  }
}

}  // namespace
