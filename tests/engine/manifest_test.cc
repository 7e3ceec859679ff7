#include "sync/manifest.h"

#include <gtest/gtest.h>

#include "sync/errors.h"
#include "sync/support/json_text.h"

namespace quillmarsh::sync {
namespace {

std::shared_ptr<Json> manifest_data(const char* text) { return std::make_shared<Json>(Json::parse(text)); }

TEST(Manifest, KeepsValuesAsTheJsonHeldThemWithDefaultsOnlyForMissingKeys) {
  const Manifest m(manifest_data(R"({"era_id": "7", "version": null, "files": {}, "extra": 1})"));
  EXPECT_EQ(m.era_id, "7");  // not converted here
  EXPECT_TRUE(m.version.is_null());  // null stays absent, not 0
  EXPECT_TRUE(m.base_url.is_null());

  const Manifest bare(manifest_data("{}"));
  EXPECT_EQ(bare.era_id, 0);
  EXPECT_EQ(bare.version, 0);
  EXPECT_TRUE(bare.files().is_object() && bare.files().empty());
  EXPECT_FALSE(bare.to_dict().contains("files"));

  const Manifest null_files(manifest_data(R"({"files": null})"));
  EXPECT_TRUE(null_files.files().is_null());
  EXPECT_FALSE(_manifest_has_agent_bundle_declarations(null_files));
}

TEST(ManifestFilters, RetiredPredicateCountsExactlyFiveSegments) {
  for (const char* path : {"found_strategies/a/b/c/pnl.long.arrow", "found_signals\\a\\b\\c\\pnl_long.arrow",
                           "/found_signals/a/b/c/pnl_long.arrow/", "found_signals////pnl_long.arrow"}) {
    EXPECT_TRUE(_is_retired_found_pnl_long_file(path)) << path;
  }
  for (const char* path : {"found_signals/a/b/pnl_long.arrow", "found_signals/a/b/c/d/pnl_long.arrow",
                           "useful_signals/a/b/c/pnl_long.arrow", "found_signals/a/b/c/PNL_LONG.arrow"}) {
    EXPECT_FALSE(_is_retired_found_pnl_long_file(path)) << path;
  }
}

TEST(ManifestFilters, RemoveInOrderWithoutTouchingTheInput) {
  // Declarations go by a ".pxd" name (case counts) or a declaration kind.
  auto data = manifest_data(R"({"era_id": 3, "files": {
      "z.bin": {"kind": "feature"},
      "decl.pxd": {},
      "found_signals/a/b/c/pnl_long.arrow": {"kind": "found_signal_is_pnl"},
      "odd": 5,
      "upper.PXD": {},
      "m.so": {"kind": "vault_module"},
      "a.bin": {"kind": "vault_declaration"},
      "b.bin": {"kind": "backtester_declaration"}}, "tail": true})");
  const std::string before = json_text(*data);
  auto declarations_gone = _drop_agent_bundle_declaration_files(data);
  auto both_gone = _drop_retired_found_pnl_long_files(declarations_gone);
  EXPECT_EQ(json_text(*data), before);
  EXPECT_NE(declarations_gone.get(), data.get());
  EXPECT_NE(both_gone.get(), declarations_gone.get());
  const std::string kept_tail = R"("odd": 5, "upper.PXD": {}, "m.so": {"kind": "vault_module"}}, "tail": true})";
  EXPECT_EQ(json_text(*declarations_gone),
            R"({"era_id": 3, "files": {"z.bin": {"kind": "feature"}, "found_signals/a/b/c/pnl_long.arrow": )"
            R"({"kind": "found_signal_is_pnl"}, )" + kept_tail);
  EXPECT_EQ(json_text(*both_gone), R"({"era_id": 3, "files": {"z.bin": {"kind": "feature"}, )" + kept_tail);

  EXPECT_TRUE(_manifest_has_agent_bundle_declarations(Manifest(data)));
  EXPECT_TRUE(_manifest_has_retired_found_pnl_long_files(Manifest(declarations_gone)));
  EXPECT_FALSE(_manifest_has_agent_bundle_declarations(Manifest(both_gone)));
  EXPECT_FALSE(_manifest_has_retired_found_pnl_long_files(Manifest(both_gone)));
}

}  // namespace
}  // namespace quillmarsh::sync
