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
  EXPECT_EQ(0, list.count());
  EXPECT_EQ(nullptr, list.get(0));
  EXPECT_TRUE(list.add(certs[0]));
  const Certificate* first = list.get(0);
  EXPECT_TRUE(list.add(&certs[1]));
  EXPECT_TRUE(list.add(certs[2]));
  EXPECT_FALSE(list.add(nullptr));
  EXPECT_FALSE(list.add(Certificate()));
  ASSERT_EQ(3, list.count());
  EXPECT_EQ(first, list.get(0)) << "adding keeps earlier pointers valid";
  for (int i = 0; i < 3; ++i) {
    ASSERT_NE(nullptr, list.get(i));
    EXPECT_EQ(certs[static_cast<size_t>(i)], *list.get(i));
    EXPECT_NE(&certs[static_cast<size_t>(i)], list.get(i));
  }
  EXPECT_EQ(nullptr, list.get(3));
  EXPECT_EQ(nullptr, list.get(-1));

  // The caller's objects may go; the list's copies stay.
  certs.clear();
  const CertList copy(list);
  EXPECT_EQ(3, copy.count());
  EXPECT_NE(list.get(2), copy.get(2));
  EXPECT_EQ(*list.get(2), *copy.get(2));
  list.clear();
  EXPECT_EQ(0, list.count());
  EXPECT_EQ(nullptr, list.get(0));
  EXPECT_EQ(3, copy.count());
}

}  // namespace
