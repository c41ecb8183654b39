// The zqrtree tool end to end, run as a separate process on real files:
// answers of every operator against a brute-force model through create,
// load, insert, delete and reload; CSV, GeoJSON and standard input; a failed
// operation leaving the database as it was; the diagnostics describing one
// tree. Bad input is the hostile suite's.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <map>
#include <random>
#include <sstream>

#include "common/tool_run.h"
#include "driver/db_dump.h"
#include "tools/model.h"

namespace {

using zq::Box;
using Model = std::map<int64_t, Box>;

using zqtest::Outcome;
using zqtest::slurp;
using zqtest::sorted_lines;

class ToolTest : public ::testing::Test {
 protected:
  Outcome run(const std::vector<std::string>& args, const std::string& input = "",
              const std::vector<std::string>& env = {}) {
    return zqtest::run_tool(dir_, args, input, env);
  }

  std::string write(const std::string& name, const std::string& text) {
    const std::string path = dir_.file(name);
    std::ofstream(path) << text;
    return path;
  }

  // All minima, then all maxima, exactly.
  static std::string box_arg(const Box& b, int dims) {
    std::string s;
    char buf[64];
    for (int k = 0; k < 2 * dims; ++k) {
      snprintf(buf, sizeof buf, "%s%.17g", k ? "," : "", k < dims ? b.min[k] : b.max[k - dims]);
      s += buf;
    }
    return s;
  }

  static std::string csv(const Model& model, int dims) {
    std::string text;
    for (const auto& [id, b] : model) text += std::to_string(id) + "," + box_arg(b, dims) + "\n";
    return text;
  }

  // Quarter-integer corners: touching, nested and equal boxes are common.
  static Model random_model(int dims, int64_t first, int n, uint64_t seed) {
    std::mt19937_64 rng(seed);
    std::uniform_int_distribution<int> pos(0, 160), len(0, 24);
    Model m;
    for (int i = 0; i < n; ++i) {
      Box b;
      for (int k = 0; k < dims; ++k) {
        b.min[k] = pos(rng) / 4.0;
        b.max[k] = b.min[k] + len(rng) / 4.0;
      }
      m[first + i] = b;
    }
    return m;
  }

  void expect_queries_match(const Model& model, int dims, uint64_t seed) {
    struct OpCase {
      const char* ops;
      bool or_mode;
    };
    const OpCase op_cases[] = {{"intersect", false},
                               {"contains", false},
                               {"within", false},
                               {"equal", false},
                               {"any", false},
                               {"within|intersect", false},
                               {"contains|intersect", false},
                               {"any", true},
                               {"within|equal", true},
                               {"intersect|contains", true}};
    std::vector<Box> queries;
    for (const auto& [id, b] : random_model(dims, 0, 3, seed)) queries.push_back(b);
    queries.push_back(model.empty() ? Box{} : model.begin()->second);
    for (const Box& q : queries)
      for (const OpCase& s : op_cases) {
        uint32_t op = 0;
        std::string error;
        ASSERT_TRUE(zq::parse_op(s.ops, s.or_mode, &op, &error));
        std::vector<std::string> args = {"query", db_, "t", "--op", s.ops, box_arg(q, dims)};
        if (s.or_mode) args.push_back("--or");
        const Outcome r = run(args);
        ASSERT_EQ(r.status, 0) << r.err;
        std::string want;
        for (const auto& [id, b] : model)
          if (zqtool::model_matches(op, b, q, dims)) want += std::to_string(id) + "\n";
        ASSERT_EQ(sorted_lines(r.out), sorted_lines(want))
            << s.ops << (s.or_mode ? " --or " : " ") << box_arg(q, dims);
      }
  }

  // Nearest first, equal distances by rowid, each line's distance and box
  // read back exactly.
  void expect_nearest_matches(const Model& model, int dims, uint64_t seed) {
    for (auto [id, q] : random_model(dims, 0, 3, seed)) {
      // Points as x,y[,z] with -k, boxes with a distance limit only.
      const bool point = id % 2 == 0;
      std::string query = box_arg(q, dims);
      if (point) {
        size_t cut = 0;  // past the comma that ends the minima
        for (int k = 0; k < dims; ++k) cut = query.find(',', cut) + 1;
        query.resize(cut - 1);
        for (int k = 0; k < dims; ++k) q.max[k] = q.min[k];
      }
      const auto want = zqtool::model_nearest(model, q, dims, point ? 7 : 0, point ? INFINITY : 6);
      const Outcome r = run({"nearest", db_, "t", query, "-k", point ? "7" : "0", "--max-distance",
                             point ? "inf" : "6"});
      ASSERT_EQ(r.status, 0) << r.err;
      std::istringstream lines(r.out);
      for (const auto& [rowid, distance] : want) {
        std::string line;
        ASSERT_TRUE(std::getline(lines, line)) << query;
        char* p = nullptr;
        EXPECT_EQ(std::strtoll(line.c_str(), &p, 10), rowid) << query << ": " << line;
        EXPECT_EQ(std::strtod(p + 1, &p), distance) << line;
        const Box& b = model.at(rowid);
        for (int k = 0; k < 2 * dims; ++k)
          EXPECT_EQ(std::strtod(p + 1, &p), k < dims ? b.min[k] : b.max[k - dims]) << line;
      }
      std::string rest;
      EXPECT_FALSE(std::getline(lines, rest)) << query << ": " << rest;
    }
  }

  void expect_check_ok() {
    const Outcome r = run({"check", db_, "t"});
    EXPECT_EQ(r.status, 0) << r.err;
  }

  zqtest::TempDir dir_;
  const std::string db_ = dir_.file("t.db");
};

class ToolDims : public ToolTest, public ::testing::WithParamInterface<int> {};

// The operations themselves are the driver suite's; here the tool's way to
// them: boxes as arguments and files in every axis count, operator names,
// deletes with and without a box, standard input.
TEST_P(ToolDims, EveryOperatorMatchesTheModelThroughChanges) {
  const int dims = GetParam();
  ASSERT_EQ(run({"create", db_, "t", "--dims", std::to_string(dims)}).status, 0);
  Model model = random_model(dims, 1, 1500, 7);
  ASSERT_EQ(run({"load", db_, "t", write("a.csv", csv(model, dims))}).status, 0);
  const Box extra = random_model(dims, 0, 1, 8).begin()->second;
  Outcome r = run({"insert", db_, "t", "5000", box_arg(extra, dims)});
  ASSERT_EQ(r.status, 0) << r.err;
  model[5000] = extra;
  ASSERT_EQ(run({"delete", db_, "t", "3"}).status, 0);
  model.erase(3);
  r = run({"delete", db_, "t", "4", box_arg(model[4], dims)});
  ASSERT_EQ(r.status, 0) << r.err;
  model.erase(4);
  Model more = random_model(dims, 6001, 200, 9);
  r = run({"insert", db_, "t", "--file", write("more.csv", csv(more, dims))});
  ASSERT_EQ(r.status, 0) << r.err;
  model.insert(more.begin(), more.end());
  expect_check_ok();
  expect_queries_match(model, dims, 2);
  expect_nearest_matches(model, dims, 3);

  Model fresh = random_model(dims, 1, 100, 11);
  r = run({"load", db_, "t", "-", "--replace", "--fill", "1.0"}, csv(fresh, dims));
  ASSERT_EQ(r.status, 0) << r.err;
  expect_check_ok();
  expect_queries_match(fresh, dims, 4);
}

INSTANTIATE_TEST_SUITE_P(Axes, ToolDims, ::testing::Values(1, 2, 3));

TEST_F(ToolTest, EntriesRoundTripExactly) {
  ASSERT_EQ(run({"create", db_, "t"}).status, 0);
  const std::string text = "1,0.1,-2.5e-300,0.30000000000000004,1e300\n2,-0,0,0,0\n";
  ASSERT_EQ(run({"load", db_, "t", write("a.csv", text)}).status, 0);
  const Outcome r = run({"query", db_, "t", "--op", "any", "--or", "--entries", "0,0,0,0"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(sorted_lines(r.out), "1,0.1,-2.5e-300,0.30000000000000004,1e+300\n2,-0,0,0,0\n");
}

// GeoJSON goes through OGR (formats_test.cc has the other formats); the
// feature's own "id" is the rowid, whole numbers in any spelling.
TEST_F(ToolTest, GeoJsonFeaturesBecomeTheirEnvelopes) {
  const std::string geojson = R"({"type": "FeatureCollection", "name": "parks",
 "features": [
  {"type": "Feature", "id": 10, "properties": {},
   "geometry": {"type": "LineString", "coordinates": [[1, 2], [3, 4]]}},
  {"type": "Feature", "id": "11", "geometry": {"type": "Point", "coordinates": [5, 6]}},
  {"type": "Feature", "id": 2, "geometry": {"type": "Polygon",
     "coordinates": [[[0, 0], [4, -1], [2, 7], [0, 0]]]}},
  {"type": "Feature", "id": 13.0, "properties": {"n": [1, 2]},
   "geometry": {"type": "GeometryCollection", "geometries": [
     {"type": "MultiLineString", "coordinates": [[[-3, 1], [2, 2]], [[9, 9.5], [1, 1]]]},
     {"type": "Point", "coordinates": [20, -4, 100]}]}}
 ]})";
  ASSERT_EQ(run({"create", db_, "t"}).status, 0);
  Outcome r = run({"load", db_, "t", write("p.geojson", geojson)});
  ASSERT_EQ(r.status, 0) << r.err;
  r = run({"query", db_, "t", "--op", "any", "--or", "--entries", "0,0,0,0"});
  EXPECT_EQ(sorted_lines(r.out), "10,1,2,3,4\n11,5,6,5,6\n13,-3,-4,20,9.5\n2,0,-1,4,7\n");
  // The same collection from standard input, recognised by its first character.
  ASSERT_EQ(run({"create", db_, "u"}).status, 0);
  r = run({"load", db_, "u", "-"}, geojson);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(run({"query", db_, "u", "--op", "equal", "0,-1,4,7"}).out, "2\n");
  // A window from a file's extent.
  r = run({"query", db_, "t", "--op", "within", "--extent-of", write("w.csv", "1,0,-1,4,7\n")});
  EXPECT_EQ(sorted_lines(r.out), "10\n2\n") << r.err;
}

// Each engine call of an operation inside a node-table mini-transaction fails
// in turn: the tool exits 1 with the engine's trace, and the database is byte
// for byte as before. (Allocation failures are the driver suite's.)
TEST_F(ToolTest, EngineFailuresLeaveTheDatabaseAsItWas) {
  ASSERT_EQ(run({"create", db_, "t"}).status, 0);
  const Model model = random_model(2, 1, 300, 21);
  ASSERT_EQ(run({"load", db_, "t", write("a.csv", csv(model, 2))}).status, 0);
  const std::string more = write("b.csv", csv(random_model(2, 1001, 40, 22), 2));
  const std::vector<std::vector<std::string>> ops = {{"insert", db_, "t", "--file", more},
                                                     {"delete", db_, "t", "5"},
                                                     {"load", db_, "t", more, "--replace"}};
  for (const auto& op : ops) {
    const std::string before = zqtest::dump_database(db_);
    int failed = 0;
    for (int nth = 1;; ++nth) {
      ASSERT_LT(nth, 5000) << op[0] << " never succeeded";
      const Outcome r = run(op, "", {"ZQRTREE_FAULT_ENGINE_NTH=" + std::to_string(nth)});
      if (r.status == 0) break;
      ++failed;
      EXPECT_EQ(r.status, 1) << op[0] << " " << nth << ": " << r.err;
      EXPECT_NE(r.err.find("error stack, innermost first:"), std::string::npos) << r.err;
      ASSERT_EQ(zqtest::dump_database(db_), before) << op[0] << " failing at call " << nth;
    }
    EXPECT_GT(failed, 0) << op[0];
  }
  expect_check_ok();
  Model now = random_model(2, 1001, 40, 22);
  expect_queries_match(now, 2, 23);
}

TEST_F(ToolTest, DiagnosticsDescribeTheSameTree) {
  ASSERT_EQ(run({"create", db_, "t"}).status, 0);
  const Model model = random_model(2, 1, 2000, 31);
  ASSERT_EQ(run({"load", db_, "t", write("a.csv", csv(model, 2))}).status, 0);
  const Outcome stats = run({"stats", db_, "t"});
  ASSERT_EQ(stats.status, 0) << stats.err;
  EXPECT_NE(stats.out.find("2 axes, 2000 entries"), std::string::npos) << stats.out;
  unsigned height = 0, nodes = 0;
  ASSERT_EQ(sscanf(stats.out.substr(stats.out.find("height")).c_str(), "height %u, %u nodes",
                   &height, &nodes),
            2);
  const Outcome check = run({"check", db_, "t"});
  EXPECT_NE(check.err.find("height " + std::to_string(height) + ", " + std::to_string(nodes) +
                           " nodes, 2000 entries"),
            std::string::npos)
      << check.err;
  // The debug print: one header line per node, one line per cell.
  const Outcome print = run({"print", db_, "t"});
  ASSERT_EQ(print.status, 0);
  size_t headers = 0, cells = 0;
  std::istringstream lines(print.out);
  for (std::string line; std::getline(lines, line);) {
    if (line.find("n_cells:") != std::string::npos) ++headers;
    if (line.find("id(rowid):") != std::string::npos) ++cells;
  }
  EXPECT_EQ(headers, nodes);
  EXPECT_EQ(cells, 2000 + nodes - 1);
  const std::string svg = dir_.file("t.svg");
  ASSERT_EQ(run({"render", db_, "t", "-o", svg}).status, 0);
  const std::string pic = slurp(svg);
  size_t rects = 0;
  for (size_t at = pic.find("<rect x="); at != std::string::npos; at = pic.find("<rect x=", at + 1))
    ++rects;
  EXPECT_EQ(rects, 2000 + nodes);
  EXPECT_NE(pic.find("</svg>"), std::string::npos);
  // A handle budget of nothing still answers correctly.
  const Outcome tiny = run({"query", db_, "t", "--buf-handle-mb", "0", "--count", "0,0,20,20"});
  const Outcome normal = run({"query", db_, "t", "--count", "0,0,20,20"});
  EXPECT_EQ(tiny.out, normal.out);
  EXPECT_EQ(tiny.status, 0) << tiny.err;
}

TEST_F(ToolTest, EverySubcommandExplainsItselfWithAnExample) {
  for (const char* sub : {"create", "load", "insert", "delete", "query", "nearest", "print",
                          "check", "stats", "render", "drop", "list", "gen", "bench"}) {
    const Outcome r = run({sub, "--help"});
    EXPECT_EQ(r.status, 0) << sub;
    EXPECT_NE(r.out.find("Example:\n  zqrtree " + std::string(sub)), std::string::npos) << sub;
  }
  const Outcome top = run({"--help"});
  EXPECT_EQ(top.status, 0);
  EXPECT_NE(top.out.find("ZQRTREE_BUF_TOTAL_MB"), std::string::npos);
}

TEST_F(ToolTest, GeneratedDataPassesTheVerifiedBenchAndDrops) {
  const std::string boxes = dir_.file("g.csv");
  ASSERT_EQ(run({"gen", boxes, "-n", "3000", "--dist", "clustered", "--seed", "5"}).status, 0);
  ASSERT_EQ(run({"create", db_, "t"}).status, 0);
  ASSERT_EQ(run({"load", db_, "t", boxes}).status, 0);
  const Outcome bench = run({"bench", db_, "t", "--queries", "20", "--verify"});
  EXPECT_EQ(bench.status, 0) << bench.err;
  EXPECT_EQ(bench.out.find("MISMATCH"), std::string::npos) << bench.out;
  EXPECT_EQ(run({"list", db_}).out, "t\t2\t3000\n");
  ASSERT_EQ(run({"drop", db_, "t"}).status, 0);
  EXPECT_EQ(run({"list", db_}).out, "");
  EXPECT_EQ(run({"query", db_, "t", "0,0,1,1"}).status, 1);
  // Nothing of the old index is left to come back under its name.
  ASSERT_EQ(run({"create", db_, "t"}).status, 0);
  EXPECT_EQ(run({"query", db_, "t", "--op", "any", "--or", "0,0,0,0"}).out, "");
  expect_check_ok();
}

}  // namespace
