#include "sync/manifest.h"

#include <gtest/gtest.h>

#include "sync/errors.h"
#include "sync/support/json_text.h"
#include "sync/support/posix_file.h"
#include "tests/support/temp_dir.h"

namespace quillmarsh::sync {
namespace {

using testing::TempDir;

std::shared_ptr<Json> manifest_data(const char* text) { return std::make_shared<Json>(Json::parse(text)); }

TEST(Manifest, KeepsValuesAsTheJsonHeldThemWithDefaultsOnlyForMissingKeys) {
  const Manifest m(manifest_data(R"({"era_id": "7", "version": null, "files": {}, "extra": 1})"));
  EXPECT_EQ(m.era_id, "7");  // not converted here
  EXPECT_TRUE(m.version.is_null());  // null stays absent, not 0
  EXPECT_TRUE(m.base_url.is_null());
  EXPECT_EQ(m.pnl_column_count, 0);
  EXPECT_EQ(m.found_signals, Json::object());

  const Manifest bare(manifest_data("{}"));
  EXPECT_EQ(bare.era_id, 0);
  EXPECT_EQ(bare.version, 0);
  EXPECT_TRUE(bare.files().is_object() && bare.files().empty());
  EXPECT_FALSE(bare.to_dict().contains("files"));

  const Manifest null_files(manifest_data(R"({"files": null})"));
  EXPECT_TRUE(null_files.files().is_null());
  EXPECT_FALSE(_manifest_has_agent_bundle_declarations(null_files));
}

TEST(Manifest, FilesIsTheDataObjectsOwnMember) {
  auto data = manifest_data(R"({"files": {"a.bin": {"size_bytes": 1}}})");
  Manifest m(data);
  m.files()["a.bin"]["sha256"] = "repaired";
  EXPECT_EQ((*data)["files"]["a.bin"]["sha256"], "repaired");
  EXPECT_EQ(m.to_dict()["files"]["a.bin"]["sha256"], "repaired");
  EXPECT_EQ(m._data.get(), data.get());
}

TEST(Manifest, RefusesDataThatIsNoObject) {
  EXPECT_THROW(Manifest(manifest_data("[1, 2]")), TypeError);
  EXPECT_THROW(_drop_agent_bundle_declaration_files(manifest_data("[]")), TypeError);
  EXPECT_THROW(_drop_retired_found_pnl_long_files(manifest_data("3")), TypeError);
}

TEST(ManifestFilters, DeclarationPredicate) {
  EXPECT_TRUE(_is_agent_bundle_declaration_file("bundle/x.pxd", Json()));
  EXPECT_FALSE(_is_agent_bundle_declaration_file("bundle/x.PXD", Json::object()));  // case counts
  EXPECT_TRUE(_is_agent_bundle_declaration_file("v.bin", Json{{"kind", "vault_declaration"}}));
  EXPECT_TRUE(_is_agent_bundle_declaration_file("b.bin", Json{{"kind", "backtester_declaration"}}));
  EXPECT_FALSE(_is_agent_bundle_declaration_file("m.so", Json{{"kind", "vault_module"}}));
  EXPECT_FALSE(_is_agent_bundle_declaration_file("odd", Json("not an object")));
}

TEST(ManifestFilters, RetiredPredicateCountsExactlyFiveSegments) {
  for (const char* path : {"found_signals/a/b/c/pnl_long.arrow", "found_strategies/a/b/c/pnl.long.arrow",
                           "found_signals\\a\\b\\c\\pnl_long.arrow", "/found_signals/a/b/c/pnl_long.arrow/",
                           "found_signals////pnl_long.arrow"}) {
    EXPECT_TRUE(_is_retired_found_pnl_long_file(path)) << path;
  }
  for (const char* path : {"found_signals/a/b/pnl_long.arrow", "found_signals/a/b/c/d/pnl_long.arrow",
                           "useful_signals/a/b/c/pnl_long.arrow", "found_signals/a/b/c/PNL_LONG.arrow",
                           "found_signals/a/b/c/pnl.arrow"}) {
    EXPECT_FALSE(_is_retired_found_pnl_long_file(path)) << path;
  }
}

TEST(ManifestFilters, RemoveInOrderWithoutTouchingTheInput) {
  auto data = manifest_data(R"({"era_id": 3, "files": {
      "z.bin": {"kind": "feature"},
      "decl.pxd": {},
      "found_signals/a/b/c/pnl_long.arrow": {"kind": "found_signal_is_pnl"},
      "odd": 5,
      "a.bin": {"kind": "vault_declaration"}}, "tail": true})");
  const std::string before = json_text(*data);
  auto declarations_gone = _drop_agent_bundle_declaration_files(data);
  auto both_gone = _drop_retired_found_pnl_long_files(declarations_gone);
  EXPECT_EQ(json_text(*data), before);
  EXPECT_NE(declarations_gone.get(), data.get());
  EXPECT_NE(both_gone.get(), declarations_gone.get());
  EXPECT_EQ(json_text(*declarations_gone),
            R"({"era_id": 3, "files": {"z.bin": {"kind": "feature"}, "found_signals/a/b/c/pnl_long.arrow": )"
            R"({"kind": "found_signal_is_pnl"}, "odd": 5}, "tail": true})");
  EXPECT_EQ(json_text(*both_gone), R"({"era_id": 3, "files": {"z.bin": {"kind": "feature"}, "odd": 5}, "tail": true})");

  EXPECT_TRUE(_manifest_has_agent_bundle_declarations(Manifest(data)));
  EXPECT_TRUE(_manifest_has_retired_found_pnl_long_files(Manifest(declarations_gone)));
  EXPECT_FALSE(_manifest_has_agent_bundle_declarations(Manifest(both_gone)));
  EXPECT_FALSE(_manifest_has_retired_found_pnl_long_files(Manifest(both_gone)));
}

TEST(ManifestJson, WritesTheExactBytesAndReadsBackTheSameObject) {
  TempDir dir;
  auto data = manifest_data(
      "{\"version\": 12, \"era_id\": 4, \"base_url\": \"https://r2.example/bucket/\", "
      "\"files\": {\"features/caf\xc3\xa9/\xe6\x97\xa5.arrow\": {\"size_bytes\": 10, \"sha256\": \"ab\", "
      "\"meta\": {\"nested\": [1, {\"deep\": \"\xf0\x9f\x98\x80\"}]}}, \"b.bin\": {\"size_bytes\": 0}}, "
      "\"pnl_column_count\": 2}");
  _write_manifest_json(dir.path(), *data);
  const std::string expected =
      "{\"version\": 12, \"era_id\": 4, \"base_url\": \"https://r2.example/bucket/\", "
      "\"files\": {\"features/caf\\u00e9/\\u65e5.arrow\": {\"size_bytes\": 10, \"sha256\": \"ab\", "
      "\"meta\": {\"nested\": [1, {\"deep\": \"\\ud83d\\ude00\"}]}}, \"b.bin\": {\"size_bytes\": 0}}, "
      "\"pnl_column_count\": 2}";
  EXPECT_EQ(read_file(dir / "manifest.json"), expected);
  EXPECT_EQ(parse_json_text(read_file(dir / "manifest.json")), *data);
  EXPECT_FALSE(path_exists(dir / "manifest.json.tmp"));
}

}  // namespace
}  // namespace quillmarsh::sync
