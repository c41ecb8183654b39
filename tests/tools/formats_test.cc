// GIS sources through GDAL/OGR, end to end: boxes written by ogr2ogr into
// each format load exactly the entries their box CSV loads, from generated
// data and from the real data sets (../shared/data, skipped when absent);
// query's GeoJSON output loads back as the same entries; gzip CSV loads as
// it is.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "common/tool_run.h"

namespace {

using zqtest::Outcome;
using zqtest::sorted_lines;

struct Format {
  const char* name;
  const char* driver;
  const char* file;
  const char* creation;     // ogr2ogr options
  const char* open_prefix;  // the path as the tool is given it
  std::vector<std::string> load;
};

// Ids travel as the feature id where a format has one of its own (GeoJSON's
// "id", a GeoPackage's fid), else as an attribute.
const Format kFormats[] = {
    {"GeoPackage", "GPKG", "b.gpkg", "-lco FID=id", "", {}},
    {"Shapefile", "ESRI Shapefile", "b.shp", "", "", {"--id-field", "id"}},
    {"zipped Shapefile", "ESRI Shapefile", "b.shp.zip", "", "/vsizip/", {"--id-field", "id"}},
    {"FlatGeobuf", "FlatGeobuf", "b.fgb", "", "", {"--id-field", "id"}},
    {"GeoJSON", "GeoJSON", "b.geojson", "-lco ID_FIELD=id", "", {}},
    {"GML", "GML", "b.gml", "", "", {"--id-field", "id"}},
    {"KML", "KML", "b.kml", "-dsco NameField=id", "", {"--id-field", "Name"}},
};

struct Row {
  std::string id;
  std::vector<std::string> mins, maxs;  // coordinate text as the source has it
};

class FormatsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::system("ogr2ogr --version >/dev/null 2>&1") != 0)
      GTEST_SKIP() << "ogr2ogr (Debian gdal-bin) is not installed";
  }

  Outcome run(const std::vector<std::string>& args, const std::string& input = "") {
    return zqtest::run_tool(dir_, args, input);
  }

  // Rows as box CSV, and as a CSV whose WKT column OGR reads as geometry: a
  // point (with Z for three axes) or the box's outline.
  void write_sources(const std::vector<Row>& rows) {
    std::ofstream boxes(dir_.file("b.csv")), wkt(dir_.file("w.csv"));
    wkt << "id,WKT\n";
    for (const Row& r : rows) {
      boxes << r.id;
      for (const auto* side : {&r.mins, &r.maxs})
        for (const std::string& c : *side) boxes << ',' << c;
      boxes << '\n';
      const auto& lo = r.mins;
      const auto& hi = r.maxs;
      if (lo.size() == 3)
        wkt << r.id << ",\"POINT Z (" << lo[0] << ' ' << lo[1] << ' ' << lo[2] << ")\"\n";
      else
        wkt << r.id << ",\"POLYGON ((" << lo[0] << ' ' << lo[1] << ',' << hi[0] << ' ' << lo[1]
            << ',' << hi[0] << ' ' << hi[1] << ',' << lo[0] << ' ' << hi[1] << ',' << lo[0] << ' '
            << lo[1] << "))\"\n";
    }
  }

  static std::string zeros(int dims) {
    std::string box = "0";
    for (int k = 1; k < 2 * dims; ++k) box += ",0";
    return box;
  }

  std::string all_entries(const std::string& index, int dims) {
    const Outcome r =
        run({"query", db_, index, "--op", "any", "--or", "--format", "csv", zeros(dims)});
    EXPECT_EQ(r.status, 0) << r.err;
    return sorted_lines(r.out);
  }

  // Every format of `formats` holds the entries the box CSV loads.
  void expect_formats_match_csv(int dims, const std::vector<const Format*>& formats) {
    ASSERT_EQ(run({"create", db_, "csv", "--dims", std::to_string(dims)}).status, 0);
    Outcome r = run({"load", db_, "csv", dir_.file("b.csv")});
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string want = all_entries("csv", dims);
    for (const Format* f : formats) {
      const std::string out = dir_.file(f->file);
      std::filesystem::remove(out);
      const std::string cmd = std::string("ogr2ogr -f '") + f->driver + "' " + out + " " +
                              dir_.file("w.csv") + " -oo AUTODETECT_TYPE=YES " +
                              "-oo KEEP_GEOM_COLUMNS=NO -dim " + (dims == 3 ? "XYZ " : "XY ") +
                              f->creation;
      ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
      const std::string index = std::string("f") + std::to_string(&*f - kFormats);
      ASSERT_EQ(run({"create", db_, index, "--dims", std::to_string(dims)}).status, 0);
      std::vector<std::string> args = {"load", db_, index, f->open_prefix + out};
      args.insert(args.end(), f->load.begin(), f->load.end());
      r = run(args);
      ASSERT_EQ(r.status, 0) << f->name << ": " << r.err;
      EXPECT_EQ(all_entries(index, dims), want) << f->name;
    }
  }

  static std::vector<const Format*> every_format() {
    std::vector<const Format*> all;
    for (const Format& f : kFormats) all.push_back(&f);
    return all;
  }

  zqtest::TempDir dir_;
  const std::string db_ = dir_.file("f.db");
};

// The first `n` lines of a gzip-compressed box CSV of the shared data.
std::vector<Row> shared_rows(const std::string& file, int dims, size_t n) {
  std::vector<Row> rows;
  gzFile f = gzopen((std::string(ZQ_SHARED_DATA_DIR) + "/" + file).c_str(), "rb");
  if (f == nullptr) return rows;
  char buf[512];
  while (rows.size() < n && gzgets(f, buf, sizeof buf) != nullptr) {
    std::vector<std::string> fields;
    std::stringstream line(std::string(buf).substr(0, std::strcspn(buf, "\r\n")));
    for (std::string field; std::getline(line, field, ',');) fields.push_back(field);
    Row r{fields[0], {}, {}};
    for (int k = 0; k < dims; ++k) {
      r.mins.push_back(fields[static_cast<size_t>(1 + k)]);
      r.maxs.push_back(fields[static_cast<size_t>(1 + dims + k)]);
    }
    rows.push_back(r);
  }
  gzclose(f);
  return rows;
}

TEST_F(FormatsTest, GeneratedBoxesLoadAlikeFromEveryFormat) {
  // Quarter units: exact in every text format; touching and nested boxes.
  std::mt19937_64 rng(5);
  std::uniform_int_distribution<int> pos(-400, 400), len(1, 40);
  std::vector<Row> rows;
  for (int i = 1; i <= 300; ++i) {
    Row r{std::to_string(i * 7 - 1000), {}, {}};
    for (int k = 0; k < 2; ++k) {
      const int lo = pos(rng);
      r.mins.push_back(std::to_string(lo / 4.0));
      r.maxs.push_back(std::to_string((lo + len(rng)) / 4.0));
    }
    rows.push_back(r);
  }
  write_sources(rows);
  expect_formats_match_csv(2, every_format());
}

TEST_F(FormatsTest, RealDataLoadsAlikeFromEveryFormat) {
  const std::vector<Row> roads = shared_rows("osm-turin-roads-mbr.csv.gz", 2, 3000);
  if (roads.empty()) GTEST_SKIP() << "shared data not found in " << ZQ_SHARED_DATA_DIR;
  write_sources(roads);
  expect_formats_match_csv(2, every_format());
}

TEST_F(FormatsTest, RealThreeDimensionalPointsKeepTheirZ) {
  const std::vector<Row> lidar = shared_rows("autzen-lidar-points-3d.csv.gz", 3, 3000);
  if (lidar.empty()) GTEST_SKIP() << "shared data not found in " << ZQ_SHARED_DATA_DIR;
  write_sources(lidar);
  expect_formats_match_csv(3, {&kFormats[0], &kFormats[3], &kFormats[4]});
}

TEST_F(FormatsTest, GzipCsvLoadsAsItIs) {
  const std::string file = std::string(ZQ_SHARED_DATA_DIR) + "/osm-turin-roads-mbr.csv.gz";
  if (!std::filesystem::exists(file)) GTEST_SKIP() << "shared data not found: " << file;
  ASSERT_EQ(run({"create", db_, "t"}).status, 0);
  Outcome r = run({"load", db_, "t", file});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(run({"query", db_, "t", "--op", "any", "--or", "--count", "0,0,0,0"}).out, "22530\n");
  // Standard input too, and a gzip stream of several members (cat a.gz b.gz).
  ASSERT_EQ(run({"create", db_, "u"}).status, 0);
  const std::string twice = zqtest::slurp(file) + zqtest::slurp(file);
  r = run({"load", db_, "u", "-"}, twice);
  EXPECT_NE(r.err.find("<stdin>:22531: duplicate rowid 1"), std::string::npos) << r.err;
}

// A source of two layers (the second holds entry 2 only): the first is read
// unless --layer names the other, and the choice is said; --where filters
// by attribute, in insert --file too.
TEST_F(FormatsTest, LayerWhereAndInsertChooseTheFeatures) {
  write_sources({{"1", {"0", "0"}, {"1", "1"}}, {"2", {"2", "2"}, {"3", "3"}}});
  const std::string gpkg = dir_.file("two.gpkg"), csv = dir_.file("w.csv");
  const std::string make = "ogr2ogr -f GPKG " + gpkg + " " + csv + " -oo AUTODETECT_TYPE=YES " +
                           "-oo KEEP_GEOM_COLUMNS=NO -nln first && ogr2ogr -update " + gpkg + " " +
                           csv + " -oo AUTODETECT_TYPE=YES -oo KEEP_GEOM_COLUMNS=NO -nln second " +
                           "-where 'id = 2'";
  ASSERT_EQ(std::system(make.c_str()), 0) << make;
  for (const char* index : {"a", "b", "c"}) ASSERT_EQ(run({"create", db_, index}).status, 0);
  Outcome r = run({"load", db_, "a", gpkg, "--id-field", "id"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("has 2 layers (first, second); reading 'first'"), std::string::npos)
      << r.err;
  EXPECT_EQ(all_entries("a", 2), "1,0,0,1,1\n2,2,2,3,3\n");
  r = run({"load", db_, "b", gpkg, "--layer", "second", "--id-field", "id"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(all_entries("b", 2), "2,2,2,3,3\n");
  r = run({"insert", db_, "c", "--file", gpkg, "--where", "id = 1", "--id-field", "id"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(all_entries("c", 2), "1,0,0,1,1\n");
}

// query --format geojson writes what load reads back: the same entries, in
// every axis count, points and boxes alike.
TEST_F(FormatsTest, QueryGeoJsonLoadsBackAsTheSameEntries) {
  for (int dims = 1; dims <= 3; ++dims) {
    const std::string d = std::to_string(dims), a = "a" + d, b = "b" + d;
    ASSERT_EQ(run({"create", db_, a, "--dims", d}).status, 0);
    ASSERT_EQ(run({"create", db_, b, "--dims", d}).status, 0);
    const Outcome gen = run({"gen", "-", "--dims", d, "--count", "200", "--seed", d});
    std::string csv = gen.out + "9999";
    for (int k = 0; k < 2 * dims; ++k) csv += ",0.1";  // a point
    ASSERT_EQ(run({"load", db_, a, "-"}, csv + "\n").status, 0);
    const Outcome out =
        run({"query", db_, a, "--op", "any", "--or", "--format", "geojson", zeros(dims)});
    ASSERT_EQ(out.status, 0) << out.err;
    const Outcome back = run({"load", db_, b, "-"}, out.out);
    ASSERT_EQ(back.status, 0) << back.err;
    EXPECT_EQ(all_entries(b, dims), all_entries(a, dims)) << dims << " axes";
  }
}

}  // namespace
