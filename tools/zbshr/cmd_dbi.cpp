// The statement cache from the command line: a demo step that runs a scripted
// workload against a fake driver, and the `sqlcache` subcommand that runs the
// statements given to it.
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "args.h"
#include "cli.h"
#include "zbshr/dbi.h"
#include "zbshr/memory.h"

namespace {

// A driver that prepares nothing: it hands out numbered statement handles
// and prints the requests the cache sends it.
struct ToyDriver {
  FILE* out = nullptr;
  bool verbose = true;
  int prepared = 0;
  int dropped = 0;

  static int32_t ZBSHR_CALLBACK Dispatch(DBI_CONNECTION* c) {
    auto* self = static_cast<ToyDriver*>(c->driver);
    if (c->request == DBI_REQ_DROP_STATEMENT) {
      const auto* e = static_cast<const DBI_SQLCACHE_ENTRY*>(c->arg1);
      ++self->dropped;
      if (self->verbose) {
        std::fprintf(self->out, "  driver: drop statement #%d \"%s\"\n",
                     static_cast<int>(reinterpret_cast<intptr_t>(e->statement)), e->text);
      }
    } else if (c->request == DBI_REQ_ATTRINFO) {
      std::fprintf(self->out, "  driver: report from %s: %s\n",
                   c->arg2 ? static_cast<const char*>(c->arg2) : "?",
                   c->arg1 ? static_cast<const char*>(c->arg1) : "");
    }
    return 1;
  }
};

// One execution of `sql`: a lookup, a prepare and register on a miss, and
// the return of the entry. Returns true on a hit.
bool Execute(DBI_CONNECTION* conn, ToyDriver& drv, const char* sql) {
  DBI_SQLCACHE_ENTRY* e = DBI_SQLCacheRequestSqlStatement(conn, conn->sql_cache, sql);
  const bool hit = e != nullptr;
  if (!hit) {
    e = DBI_SQLCacheRegisterSQLStatement(conn, sql, reinterpret_cast<void*>(
                                                        static_cast<intptr_t>(++drv.prepared)));
    if (e == nullptr) return false;
  }
  if (drv.verbose) {
    std::fprintf(drv.out, "%-4s #%d %s\n", hit ? "hit" : "miss",
                 static_cast<int>(reinterpret_cast<intptr_t>(e->statement)), e->text);
  }
  DBI_SQLCacheMakeSQLStatementAvailable(conn, e, &conn->sql_cache);
  return hit;
}

struct Session {
  ZBSTG_HEAP heap = zbstg_begin(0);
  DBI_CONNECTION conn{};
  ToyDriver drv;
  Session(FILE* out, const char* params) {
    conn.heap = heap;
    conn.pool = zbstg_new_pool(heap);
    conn.dispatch = &ToyDriver::Dispatch;
    conn.driver = &drv;
    conn.params = params;
    drv.out = out;
    DBI_SQLCacheSetup(&conn);
  }
  ~Session() {
    DBI_SQLCacheEnd(&conn, conn.sql_cache);
    zbstg_end(heap);
  }
};

int demo_dbi(const zcli::DemoContext& ctx) {
  FILE* out = ctx.out;
  Session s(out, "Database='sales', SQLCache=3, Log=0");
  std::fprintf(out, "parameters \"%s\": capacity %d\n", s.conn.params,
               static_cast<int>(s.conn.sql_cache->capacity));
  const char* script[] = {
      "SELECT id, name FROM customer WHERE id = ?",
      "SELECT * FROM orders WHERE customer = ?",
      "  SELECT id, name FROM customer WHERE id = ?",  // leading blanks: same statement
      "select id, name from customer where id = ?",   // other case: another statement
      "SELECT * FROM orders WHERE customer = ?",
      "SELECT * FROM product",  // a fourth in a cache of three: the oldest goes
      "SELECT * FROM orders WHERE customer = ?",
      "SELECT id, name FROM customer WHERE id = ?",  // dropped before: prepared again
  };
  int hits = 0;
  for (const char* sql : script) hits += Execute(&s.conn, s.drv, sql);
  const char* stats = DBI_SQLCacheStatistics(&s.conn, 1);
  std::fprintf(out, "statistics: %s\n", stats);
  DBI_SQLCacheFlushEntries(&s.conn, &s.conn.sql_cache);
  std::fprintf(out, "after flush: %s; %d prepared, %d dropped\n",
               DBI_SQLCacheStatistics(&s.conn, 0), s.drv.prepared, s.drv.dropped);
  const int runs = static_cast<int>(sizeof script / sizeof script[0]);
  return (hits + s.drv.prepared == runs && s.drv.prepared == s.drv.dropped) ? 0 : 1;
}

int cmd_sqlcache(int argc, char** argv) {
  CLI::App app{"Runs each statement through a connection's statement cache with a fake\n"
               "driver: a lookup, a prepare on a miss, and the return of the statement.\n"
               "Prints hits, misses and the statements the driver is asked to drop, then\n"
               "the cache statistics. A statement given as '-' reads statements from\n"
               "standard input, one per line.",
               "zbshr sqlcache"};
  std::string params = "SQLCache=10";
  bool quiet = false;
  std::vector<std::string> args;
  app.add_option("--params", params, "connection parameters, e.g. \"SQLCache=20\"")->capture_default_str();
  app.add_flag("-q,--quiet", quiet, "print the statistics only");
  app.add_option("STATEMENT", args, "statements ('-': read them from standard input)");
  if (int rc = zcli::parse_args(app, "sqlcache", argc, argv); rc >= 0) return rc;
  std::vector<std::string> statements;
  for (const auto& a : args) {
    if (a != "-") {
      statements.push_back(a);
      continue;
    }
    std::string line;
    while (std::getline(std::cin, line)) {
      while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
      if (!line.empty()) statements.push_back(line);
    }
  }
  if (statements.empty()) return zcli::usage_error("sqlcache", "no statements given");
  Session s(stdout, params.c_str());
  if (s.conn.sql_cache == nullptr) return zcli::fail("sqlcache", "cannot create the cache");
  s.drv.verbose = !quiet;
  if (!quiet) {
    std::printf("capacity %d\n", static_cast<int>(s.conn.sql_cache->capacity));
  }
  for (const std::string& sql : statements) Execute(&s.conn, s.drv, sql.c_str());
  std::printf("%s\n", DBI_SQLCacheStatistics(&s.conn, 0));
  return zcli::kOk;
}

}  // namespace

ZBSHR_SUBCOMMAND(sqlcache, "sqlcache", "run statements through the statement cache",
                 cmd_sqlcache);
ZBSHR_DEMO_STEP(dbi, 80, "statement cache", demo_dbi);
