// quillon: command-line front end to the Quillon32 library.
//
// The tool links the shared library and uses only what it exports: the
// cache_* functions and the PKI objects that cross them.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "quillon32/buffer.h"
#include "quillon32/quillon32.h"
#include "quillon32/version.h"

namespace {

constexpr const char kUsage[] =
    "usage: quillon [options] <command> [arguments]\n"
    "\n"
    "Options:\n"
    "  --version               print the library version and exit\n"
    "  --help                  print this help and exit\n"
    "  --dir DIR               directory of the CA list file caCertsList-3.5\n"
    "                          (default: the current directory)\n"
    "  --lang it|en|de|fr|es   language of the library's log lines (default: it)\n"
    "  --log FILE              append the library's log lines to FILE\n"
    "  --log-level N           log level 0..7 (3 failures, 6 information, 7 every\n"
    "                          step; default 6 when --log is given)\n"
    "\n"
    "Commands:\n"
    "  version                 print the library version\n"
    "  help                    print this help\n"
    "  ca import FILE          replace the CA list with the certificates of a PEM\n"
    "                          file (nothing is written if a block is no certificate)\n"
    "  ca add FILE...          add CA certificates: DER files, or PEM files with one\n"
    "                          or more certificates\n"
    "  ca list                 list the entries (numbered [ENTRY]) with their\n"
    "                          certificates (numbered #CERT): serial, source and,\n"
    "                          from trusted lists, country and service type\n"
    "  ca show ENTRY           show every certificate of one entry\n"
    "  ca remove ENTRY [CERT]  remove one certificate of an entry, or all of them\n"
    "  ca remove --source N    remove every certificate of source N\n"
    "  ca export [FILE]        write every certificate as PEM to FILE (default:\n"
    "                          standard output)\n"
    "\n"
    "Sources: 1 trusted list, 2 PEM list (ca import), 3 added (ca add).\n";

int PrintVersion() {
  std::printf("%s\n", QUILLON32_VERSION);
  return 0;
}

int PrintHelp(FILE* out) {
  std::fputs(kUsage, out);
  return 0;
}

int Usage(const std::string& message) {
  std::fprintf(stderr, "quillon: %s\n", message.c_str());
  PrintHelp(stderr);
  return 2;
}

int Fail(const std::string& message) {
  std::fprintf(stderr, "quillon: %s\n", message.c_str());
  return 1;
}

// Global options.
struct Options {
  std::string dir = ".";
  int language = 0;
  std::string log_file;
  int log_level = -1;  // -1: not given
};

bool ParseNumber(const std::string& text, int low, int high, int* out) {
  char* end = nullptr;
  const long v = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || v < low || v > high) return false;
  *out = static_cast<int>(v);
  return true;
}

bool ParseLanguage(const std::string& code, int* out) {
  static const char* const kCodes[] = {"it", "en", "de", "fr", "es"};
  for (int i = 0; i < 5; ++i) {
    if (code == kCodes[i]) {
      *out = i;
      return true;
    }
  }
  return false;
}

// Owns the library set-up and one cache context for the run.
class Session {
 public:
  explicit Session(const Options& o) : list_path_(o.dir + "/caCertsList-3.5") {
    std::string dir = o.dir, ident = "quillon", log = o.log_file;
    cache_init(dir.data(), ident.data(), log.empty() ? nullptr : log.data());
    cache_setLang(o.language);
    if (o.log_level >= 0) {
      cache_enableLog(static_cast<unsigned char>(o.log_level));
    } else if (!o.log_file.empty()) {
      cache_enableLog(6);
    }
    ctx_ = cache_getContext();
  }
  ~Session() {
    cache_releaseContext(ctx_);
    cache_finalize();
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  void* ctx() const { return ctx_; }
  const std::string& list_path() const { return list_path_; }

  // Loads the CA list file; a missing file is an empty list.
  bool Load() {
    unsigned long error = 0;
    if (cache_loadCACertList(ctx_, &error)) return true;
    if (!std::filesystem::exists(list_path_)) return true;
    std::fprintf(stderr, "quillon: cannot read the CA list %s (error %lu)\n", list_path_.c_str(),
                 error);
    return false;
  }

  // Saves the CA list file. A list left empty has nothing to save, so its
  // old file is removed.
  bool Save() {
    if (cache_saveCACertList(ctx_)) return true;
    if (cache_getCACertsNum(ctx_) == 0) {
      std::error_code ec;
      std::filesystem::remove(list_path_, ec);
      if (!ec) return true;
    }
    std::fprintf(stderr, "quillon: cannot write the CA list %s\n", list_path_.c_str());
    return false;
  }

 private:
  std::string list_path_;
  void* ctx_ = nullptr;
};

using CertPtr = std::unique_ptr<Certificate, void (*)(Certificate*)>;
CertPtr CaCert(void* ctx, int entry, int record) {
  return CertPtr(cache_getCACert(ctx, entry, record), cache_releaseCertificate);
}

// A copy of a text the library handed out, which is then released ("" for null).
std::string TakeText(char* text) {
  std::string s = text ? text : "";
  cache_releaseCharArray(text);
  return s;
}

// Whether entry |entry| has a record |record|: it has a certificate, or at
// least a source (a record whose certificate was damaged in the file).
bool HasRecord(void* ctx, int entry, int record) {
  return CaCert(ctx, entry, record) || cache_getCACertSource(ctx, entry, record) != -1;
}

int RecordCount(void* ctx, int entry) {
  int n = 0;
  while (HasRecord(ctx, entry, n)) ++n;
  return n;
}

const char* SourceName(int source) {
  switch (source) {
    case 1: return "trusted list";
    case 2: return "PEM list";
    case 3: return "added";
    case 4: return "added, never replacing";
    default: return "caller's own";
  }
}

bool ReadText(const std::string& path, std::string* out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream ss;
  ss << in.rdbuf();
  *out = ss.str();
  return true;
}

// ---------------------------------------------------------------------------
// ca commands

int CaImport(Session& s, const std::vector<std::string>& args) {
  if (args.size() != 1) return Usage("ca import takes one PEM file");
  std::string file = args[0];
  if (!cache_initCACertListPEM(s.ctx(), file.data())) {
    return Fail("cannot import " + file + ": unreadable, or a block is no certificate; " +
                s.list_path() + " left as it was");
  }
  if (cache_getCACertsNum(s.ctx()) == 0) {
    return Fail("no certificate in " + file + "; " + s.list_path() + " left as it was");
  }
  if (!s.Save()) return 1;
  std::printf("imported %d CA entries from %s into %s\n", cache_getCACertsNum(s.ctx()),
              file.c_str(), s.list_path().c_str());
  return 0;
}

int CaAdd(Session& s, const std::vector<std::string>& args) {
  if (args.empty()) return Usage("ca add takes one or more files");
  if (!s.Load()) return 1;
  const int before = cache_getCACertsNum(s.ctx());
  for (const std::string& name : args) {
    std::string content;
    if (!ReadText(name, &content)) return Fail("cannot read " + name);
    std::string file = name;
    const bool pem = content.find("-----BEGIN ") != std::string::npos;
    const bool added = pem ? cache_addCACertListPEM(s.ctx(), file.data())
                           : cache_addCACert(s.ctx(), file.data());
    if (!added) {
      return Fail("cannot add " + name + ": no certificate, or the list is full; " +
                  s.list_path() + " left as it was");
    }
  }
  if (!s.Save()) return 1;
  std::printf("%d CA entries in %s (%d new)\n", cache_getCACertsNum(s.ctx()),
              s.list_path().c_str(), cache_getCACertsNum(s.ctx()) - before);
  return 0;
}

int CaList(Session& s, const std::vector<std::string>& args) {
  if (!args.empty()) return Usage("ca list takes no argument");
  if (!s.Load()) return 1;
  const int entries = cache_getCACertsNum(s.ctx());
  int certificates = 0;
  std::string out;
  char line[512];
  for (int e = 0; e < entries; ++e) {
    const CertPtr first = CaCert(s.ctx(), e, 0);
    out += "[" + std::to_string(e) + "] " + (first ? first->subject().toString() : "") + "\n";
    for (int r = 0; HasRecord(s.ctx(), e, r); ++r) {
      const CertPtr cert = CaCert(s.ctx(), e, r);
      ++certificates;
      const int source = cache_getCACertSource(s.ctx(), e, r);
      std::snprintf(line, sizeof line, "    #%d serial %s, source %d (%s)", r,
                    cert ? cert->serialNumber().toHex().c_str() : "? (damaged certificate)",
                    source, SourceName(source));
      out += line;
      const std::string country = TakeText(cache_getCountryCode(s.ctx(), e, r));
      const std::string type = TakeText(cache_getServiceType(s.ctx(), e, r));
      if (!country.empty()) out += ", country " + country;
      if (!type.empty()) out += ", type " + type;
      out += "\n";
    }
  }
  std::printf("%s: %d entries, %d certificates\n%s", s.list_path().c_str(), entries, certificates,
              out.c_str());
  return 0;
}

int CaShow(Session& s, const std::vector<std::string>& args) {
  int entry = 0;
  if (args.size() != 1 || !ParseNumber(args[0], 0, 1 << 30, &entry)) {
    return Usage("ca show takes an entry number");
  }
  if (!s.Load()) return 1;
  if (entry >= cache_getCACertsNum(s.ctx())) return Fail("no entry " + args[0]);
  for (int r = 0; HasRecord(s.ctx(), entry, r); ++r) {
    const CertPtr cert = CaCert(s.ctx(), entry, r);
    const int source = cache_getCACertSource(s.ctx(), entry, r);
    std::printf("certificate #%d\n", r);
    if (!cert) {
      std::printf("  (damaged in the CA list file; source %d)\n", source);
      continue;
    }
    std::printf("  subject:     %s\n", cert->subject().toString().c_str());
    std::printf("  issuer:      %s\n", cert->issuer().toString().c_str());
    std::printf("  serial:      %s\n", cert->serialNumber().toHex().c_str());
    std::printf("  not before:  %s\n", cert->notBefore().format("%Y-%m-%d %H:%M:%S UTC").c_str());
    std::printf("  not after:   %s\n", cert->notAfter().format("%Y-%m-%d %H:%M:%S UTC").c_str());
    std::printf("  source:      %d (%s)\n", source, SourceName(source));
    const std::string country = TakeText(cache_getCountryCode(s.ctx(), entry, r));
    const std::string type = TakeText(cache_getServiceType(s.ctx(), entry, r));
    const std::string status = TakeText(cache_getServiceStatus(s.ctx(), entry, r));
    const unsigned char qualified = cache_getQualified(s.ctx(), entry, r);
    if (!country.empty()) std::printf("  country:     %s\n", country.c_str());
    if (!type.empty()) std::printf("  type:        %s\n", type.c_str());
    if (!status.empty()) std::printf("  status:      %s\n", status.c_str());
    if (qualified != 0xFF) std::printf("  qualified:   %s\n", qualified ? "yes" : "no");
  }
  return 0;
}

int CaRemove(Session& s, const std::vector<std::string>& args) {
  if (!s.Load()) return 1;
  if (args.size() == 2 && args[0] == "--source") {
    int source = 0;
    if (!ParseNumber(args[1], -2147483647 - 1, 2147483647, &source)) {
      return Usage("ca remove --source takes a number");
    }
    // One pass leaves the second of two adjacent records of the source, so
    // repeat until nothing changes.
    auto total = [&] {
      int n = 0;
      for (int e = 0; e < cache_getCACertsNum(s.ctx()); ++e) n += RecordCount(s.ctx(), e);
      return n;
    };
    const int before = total();
    int now = before;
    for (;;) {
      cache_removeSourceCACerts(s.ctx(), source);
      const int after = total();
      if (after == now) break;
      now = after;
    }
    if (now != before && !s.Save()) return 1;
    std::printf("removed %d certificates of source %d\n", before - now, source);
    return 0;
  }
  int entry = 0, record = -1;
  if (args.empty() || args.size() > 2 || !ParseNumber(args[0], 0, 1 << 30, &entry) ||
      (args.size() == 2 && !ParseNumber(args[1], 0, 1 << 30, &record))) {
    return Usage("ca remove takes ENTRY [CERT] or --source N");
  }
  if (entry >= cache_getCACertsNum(s.ctx())) return Fail("no entry " + args[0]);
  std::vector<CertPtr> doomed;
  for (int r = 0; HasRecord(s.ctx(), entry, r); ++r) {
    CertPtr cert = CaCert(s.ctx(), entry, r);
    if (cert && (record < 0 || r == record)) doomed.push_back(std::move(cert));
  }
  if (doomed.empty()) return Fail("no such certificate in entry " + args[0]);
  for (const CertPtr& cert : doomed) {
    std::vector<unsigned char> der = cert->encode();
    if (!cache_removeCACertDER(s.ctx(), der.data(), static_cast<unsigned int>(der.size()))) {
      return Fail("cannot remove " + cert->subject().toString());
    }
  }
  if (!s.Save()) return 1;
  std::printf("removed %zu certificates; %d entries left\n", doomed.size(),
              cache_getCACertsNum(s.ctx()));
  return 0;
}

int CaExport(Session& s, const std::vector<std::string>& args) {
  if (args.size() > 1) return Usage("ca export takes at most one file");
  if (!s.Load()) return 1;
  std::string pem;
  for (int e = 0; e < cache_getCACertsNum(s.ctx()); ++e) {
    for (int r = 0; HasRecord(s.ctx(), e, r); ++r) {
      const CertPtr cert = CaCert(s.ctx(), e, r);
      if (!cert) continue;
      const ByteView der = cert->der();
      pem += "# " + cert->subject().toString() + "\r\n";
      pem += Buffer(der.data, der.size).toPEM("CERTIFICATE");
    }
  }
  if (args.empty()) {
    std::fwrite(pem.data(), 1, pem.size(), stdout);
    return 0;
  }
  std::ofstream out(args[0], std::ios::binary | std::ios::trunc);
  if (!out.write(pem.data(), static_cast<std::streamsize>(pem.size())) || !out.flush()) {
    return Fail("cannot write " + args[0]);
  }
  return 0;
}

int Ca(const Options& options, const std::vector<std::string>& args) {
  if (args.empty()) return Usage("ca needs a subcommand");
  const std::string& sub = args[0];
  const std::vector<std::string> rest(args.begin() + 1, args.end());
  using Handler = int (*)(Session&, const std::vector<std::string>&);
  static const struct {
    const char* name;
    Handler handler;
  } kCommands[] = {{"import", CaImport}, {"add", CaAdd},       {"list", CaList},
                   {"show", CaShow},     {"remove", CaRemove}, {"export", CaExport}};
  for (const auto& c : kCommands) {
    if (sub == c.name) {
      Session session(options);
      return c.handler(session, rest);
    }
  }
  return Usage("unknown ca subcommand '" + sub + "'");
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) {
    PrintHelp(stderr);
    return 2;
  }
  Options options;
  size_t i = 0;
  for (; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--version") return PrintVersion();
    if (a == "--help" || a == "-h") return PrintHelp(stdout);
    if (a.rfind("--", 0) != 0) break;
    if (i + 1 >= args.size()) return Usage("option " + a + " needs a value");
    const std::string& value = args[++i];
    if (a == "--dir") {
      options.dir = value;
    } else if (a == "--lang") {
      if (!ParseLanguage(value, &options.language)) {
        return Usage("unknown language '" + value + "'");
      }
    } else if (a == "--log") {
      options.log_file = value;
    } else if (a == "--log-level") {
      if (!ParseNumber(value, 0, 7, &options.log_level)) return Usage("log level must be 0..7");
    } else {
      return Usage("unknown option '" + a + "'");
    }
  }
  if (i >= args.size()) return Usage("no command");
  const std::string& cmd = args[i];
  const std::vector<std::string> rest(args.begin() + static_cast<long>(i) + 1, args.end());
  if (cmd == "version") return PrintVersion();
  if (cmd == "help") return PrintHelp(stdout);
  if (cmd == "ca") return Ca(options, rest);
  return Usage("unknown command '" + cmd + "'");
}
