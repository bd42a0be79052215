#include "quillon32/cert_list.h"

#include <gtest/gtest.h>

#include "support/pki_factory.h"

namespace {

namespace qt = quillon::testing;

TEST(CertList, KeepsOwnCopiesInOrder) {
  const qt::Pki pki = qt::MakePki(qt::KeyType::kEcP256);
  std::vector<Certificate> certs(3);
  const X509* sources[] = {pki.root.get(), pki.intermediate.get(), pki.leaf.get()};
  for (size_t i = 0; i < 3; ++i) {
    const auto der = qt::Der(sources[i]);
    ASSERT_TRUE(certs[i].decode(der.data(), der.size()));
  }

  CertList list;
  EXPECT_TRUE(list.add(certs[0]));
  const Certificate* first = list.get(0);
  EXPECT_TRUE(list.add(&certs[1]));
  EXPECT_TRUE(list.add(certs[2]));
  EXPECT_FALSE(list.add(nullptr));
  EXPECT_FALSE(list.add(Certificate()));  // not decoded
  ASSERT_EQ(list.count(), 3);
  EXPECT_EQ(list.get(0), first) << "adding keeps earlier pointers valid";
  EXPECT_EQ(list.get(3), nullptr);
  EXPECT_EQ(list.get(-1), nullptr);

  // The caller's objects may go; the list's copies stay, in order.
  const std::vector<Certificate> originals = certs;
  certs.clear();
  const CertList copy(list);
  list.clear();
  EXPECT_EQ(list.count(), 0);
  ASSERT_EQ(copy.count(), 3);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(*copy.get(i), originals[static_cast<size_t>(i)]);
}

}  // namespace
