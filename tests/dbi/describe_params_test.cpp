// Cached column descriptions and the "SQLCache" connection parameter.
#include "dbi/params.h"
#include "fake_driver.h"

namespace {

DBI_COLUMN Column(char* name, char* name2, int32_t type, int32_t length, int32_t nullable,
                  int32_t updatable) {
  DBI_COLUMN c{};
  c.name = name;
  c.name2 = name2;
  c.type = type;
  c.length = length;
  c.precision = length * 2;
  c.scale = type;
  c.nullable = nullable;
  c.updatable = updatable;
  c.bind_type = type + 100;
  c.bind_length = length + 1;
  c.display_width = length + 7;
  c.position = type;
  c.buffer = &c;
  c.indicator = -1;
  c.driver_data = &c;
  return c;
}

TEST_F(DbiTest, DescribeIsCachedAndRebuilt) {
  char n1[] = "id", q1[] = "customer.id", n2[] = "name", n3[] = "balance";
  DBI_COLUMN cols[3] = {Column(n1, q1, 1, 4, 0, 1), Column(n2, nullptr, 2, 40, 1, 0),
                        Column(n3, n3, 3, 8, 1, 1)};
  SHLIST* described = shlist_new(heap_, pool_);
  for (DBI_COLUMN& c : cols) shlist_insert(described, &c);
  shlist_get_first(described);
  shlist_get_next(described);  // the caller's position must stay here

  DBI_SQLCACHE_ENTRY* e = DBI_SQLCacheRegisterSQLStatement(conn(), "SELECT x", H(1));
  DBI_SQLCacheRegisterDescribe(conn(), e, described);
  EXPECT_EQ(shlist_get_curr(described), static_cast<void*>(&cols[1]));
  ASSERT_NE(V(e->columns), nullptr);
  ASSERT_EQ(e->columns->count, 3);
  const auto* c0 = static_cast<DBI_SQLCACHE_COLUMN*>(e->columns->first->data);
  EXPECT_EQ(c0->flags, DBI_SQLCACHE_COL_UPDATABLE);
  EXPECT_NE(V(c0->name), n1);  // owned copies

  // The caller may change or free its records: the cache has its own.
  n1[0] = 'X';
  SHLIST* rebuilt = DBI_SQLCacheRequestDescribe(conn(), e);
  ASSERT_NE(rebuilt, nullptr);
  ASSERT_EQ(shlist_get_count(rebuilt), 3);
  n1[0] = 'i';
  int i = 0;
  for (void* d = shlist_get_first(rebuilt); d; d = shlist_get_next(rebuilt), ++i) {
    const auto* r = static_cast<DBI_COLUMN*>(d);
    const DBI_COLUMN& c = cols[i];
    SCOPED_TRACE(i);
    EXPECT_STREQ(V(r->name), V(c.name));
    if (c.name2) {
      EXPECT_STREQ(V(r->name2), V(c.name2));
      EXPECT_NE(V(r->name2), V(c.name2));
    } else {
      EXPECT_EQ(V(r->name2), nullptr);
    }
    EXPECT_EQ(r->type, c.type);
    EXPECT_EQ(r->length, c.length);
    EXPECT_EQ(r->precision, c.precision);
    EXPECT_EQ(r->scale, c.scale);
    EXPECT_EQ(r->nullable, c.nullable);
    EXPECT_EQ(r->updatable, c.updatable);
    EXPECT_EQ(r->bind_type, c.bind_type);
    EXPECT_EQ(r->bind_length, c.bind_length);
    EXPECT_EQ(r->display_width, c.display_width);
    EXPECT_EQ(r->position, c.position);
    EXPECT_EQ(V(r->buffer), nullptr);  // fetch state is not cached
    EXPECT_EQ(r->indicator, 0);
    EXPECT_EQ(V(r->driver_data), nullptr);
    EXPECT_EQ(zbstg_get_pointer_subpool(heap_, r), pool_);
  }
  // Flags other than 0 and 1 still come back as 1.
  cols[0].nullable = 7;
  DBI_SQLCacheRegisterDescribe(conn(), e, described);  // replaces the old list
  SHLIST* again = DBI_SQLCacheRequestDescribe(conn(), e);
  EXPECT_EQ(static_cast<DBI_COLUMN*>(shlist_get_first(again))->nullable, 1);

  // A second entry with no describe has none to give.
  DBI_SQLCACHE_ENTRY* bare = DBI_SQLCacheRegisterSQLStatement(conn(), "SELECT y", H(2));
  EXPECT_EQ(DBI_SQLCacheRequestDescribe(conn(), bare), nullptr);
  SHLIST* empty = shlist_new(heap_, pool_);
  DBI_SQLCacheRegisterDescribe(conn(), bare, empty);
  EXPECT_EQ(V(bare->columns), nullptr);
  DBI_SQLCacheRegisterDescribe(conn(), bare, nullptr);
  EXPECT_EQ(V(bare->columns), nullptr);

  // Discarding frees the cached descriptions with the entry.
  const uint32_t before = Live();
  // list handle and nodes, records, names, text, entry
  const uint32_t cached_blocks = 1 + 3 + 3 + 5 + 1 + 1;
  DBI_SQLCacheDiscardEntry(conn(), e, 1);
  EXPECT_EQ(Live(), before - cached_blocks);
  DBI_SQLCacheDiscardEntry(conn(), bare, 1);
  EXPECT_EQ(drv_->dropped, (std::vector<intptr_t>{1, 2}));
}

TEST_F(DbiTest, CacheSizeParameter) {
  struct Case {
    const char* params;
    int32_t stored;  // -1: not stored
  };
  const Case cases[] = {
      {"SQLCache=20", 20},
      {"sqlcache=5", 5},
      {"  SQLCACHE  =  7  ", 7},
      {"Database='sales',SQLCache='12',DisableBind=1", 12},
      {"SQLCache=\"3\"", 3},
      {"Host='a,SQLCache=9', SQLCache=4", 4},
      {"SQLCache=1, SQLCache=2", 2},
      {"'SQLCache'=6", 6},
      {"SQLCache=+8", 8},
      {"SQLCache=0", 0},
      {"SQLCache=2147483647", 2147483647},
      {"\tDelimitIdentifier='No',\r\n SQLCache=11\r\n", 11},
      {"", -1},
      {"SQLCache", -1},
      {"SQLCacheSize=5", -1},
      {"MySQLCache=5", -1},
      {"SQLCache=", -1},
      {"SQLCache=-1", -1},
      {"SQLCache=2147483648", -1},
      {"SQLCache=1 0", -1},
      {"SQLCache=ten", -1},
      {"SQLCache='12", 12},  // unterminated quote runs to the end
  };
  conn()->sql_cache = DBI_SQLCacheBegin(conn(), 99);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.params);
    conn()->sql_cache->capacity = 99;
    conn()->params = c.params;
    EXPECT_EQ(DBI_SQLCacheSetSelectCacheSize(conn()), c.stored >= 0 ? 1 : 0);
    EXPECT_EQ(conn()->sql_cache->capacity, c.stored >= 0 ? c.stored : 99);
  }
  conn()->params = nullptr;
  EXPECT_EQ(DBI_SQLCacheSetSelectCacheSize(conn()), 0);
  EXPECT_EQ(DBI_SQLCacheSetSelectCacheSize(nullptr), 0);
  DBI_SQLCacheEnd(conn(), conn()->sql_cache);

  // No cache: nothing to store into.
  conn()->params = "SQLCache=4";
  EXPECT_EQ(DBI_SQLCacheSetSelectCacheSize(conn()), 0);
  EXPECT_EQ(conn()->sql_cache, nullptr);
  EXPECT_EQ(Live(), base_live_);
}

TEST_F(DbiTest, SetupCreatesTheCacheOnce) {
  conn()->params = "Log=1, SQLCache=3";
  DBI_SQLCACHE* cache = DBI_SQLCacheSetup(conn());
  ASSERT_NE(cache, nullptr);
  EXPECT_EQ(conn()->sql_cache, cache);
  EXPECT_EQ(cache->capacity, 3);
  EXPECT_EQ(cache->entries->count, 0);
  EXPECT_EQ(zbstg_get_pointer_subpool(heap_, cache), pool_);
  conn()->params = "SQLCache=6";
  EXPECT_EQ(DBI_SQLCacheSetup(conn()), cache);
  EXPECT_EQ(cache->capacity, 6);
  DBI_SQLCacheEnd(conn(), cache);

  conn()->params = nullptr;  // no parameter: capacity 0
  cache = DBI_SQLCacheSetup(conn());
  ASSERT_NE(cache, nullptr);
  EXPECT_EQ(cache->capacity, 0);
  DBI_SQLCacheEnd(conn(), cache);
  EXPECT_EQ(DBI_SQLCacheSetup(nullptr), nullptr);
  EXPECT_EQ(Live(), base_live_);
}

TEST(DbiParams, ValuesAreUnquotedAndTrimmed) {
  using zbshr::dbi::find_parameter;
  const char* p =
      " Server = 'db1, east' , User=\"o'brien\", Pass='it''s', Empty='', Raw = a b c ,"
      " Eq=x=y, Tail='q' z , NoValue, =orphan";
  EXPECT_EQ(find_parameter(p, "server").value(), "db1, east");
  EXPECT_EQ(find_parameter(p, "USER").value(), "o'brien");
  EXPECT_EQ(find_parameter(p, "pass").value(), "it's");
  EXPECT_EQ(find_parameter(p, "empty").value(), "");
  EXPECT_EQ(find_parameter(p, "raw").value(), "a b c");
  EXPECT_EQ(find_parameter(p, "eq").value(), "x=y");
  EXPECT_EQ(find_parameter(p, "tail").value(), "q z");
  EXPECT_FALSE(find_parameter(p, "NoValue").has_value());
  EXPECT_EQ(find_parameter(p, "").value(), "orphan");
  EXPECT_FALSE(find_parameter(p, "Missing").has_value());
  EXPECT_FALSE(find_parameter(nullptr, "x").has_value());
  // Quoted blanks are kept; unquoted blanks around them go.
  EXPECT_EQ(find_parameter("A=  ' padded '  ", "a").value(), " padded ");
}

TEST(DbiParams, Counts) {
  using zbshr::dbi::parse_count;
  EXPECT_EQ(parse_count("0").value(), 0);
  EXPECT_EQ(parse_count("007").value(), 7);
  EXPECT_EQ(parse_count("+15").value(), 15);
  EXPECT_EQ(parse_count("2147483647").value(), 2147483647);
  for (const char* bad : {"", "+", "-1", "1.5", "99999999999999999999", "2147483648", "1e3"}) {
    EXPECT_FALSE(parse_count(bad).has_value()) << bad;
  }
}

}  // namespace
