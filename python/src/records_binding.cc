#include "python/src/records_binding.h"

#include <memory>
#include <string>

#include "python/src/json_objects.h"
#include "sync/manifest.h"

namespace quillmarsh::sync::python {
namespace {

// Never released, like every object the component's threads may reach.
struct RecordClasses {
  py::object sync_result, verify_result, download_progress;
};
RecordClasses* g_records = nullptr;

py::list python_list(const std::vector<std::string>& items) {
  py::list list(items.size());
  for (std::size_t i = 0; i < items.size(); ++i) list[i] = py::str(items[i]);
  return list;
}

// A manifest's attribute as a property: the JSON value converted afresh on
// each read, since the manifest owns it.
template <const Json Manifest::*Member>
py::object member(const Manifest& manifest) {
  return python_of(manifest.*Member);
}

std::string dump(const Json& value) { return value.dump(-1, ' ', false, Json::error_handler_t::replace); }

}  // namespace

void bind_records(py::module_& m) {
  py::module_ records = py::module_::import("quillmarsh_sync._records");
  g_records = new RecordClasses{records.attr("SyncResult"), records.attr("VerifyResult"),
                                records.attr("DownloadProgress")};

  py::class_<Manifest, std::shared_ptr<Manifest>>(m, "Manifest",
                                                  "In-memory representation of the server manifest.\n\n"
                                                  "Attributes hold the values as the JSON held them, or their "
                                                  "defaults when missing; each read converts afresh.")
      .def(py::init([](py::handle data) { return std::make_shared<Manifest>(json_of(data)); }), py::arg("data"),
           "Wraps a decoded manifest (a dict); TypeError for anything else.")
      .def_property_readonly("era_id", &member<&Manifest::era_id>)
      .def_property_readonly("version", &member<&Manifest::version>)
      .def_property_readonly("base_url", &member<&Manifest::base_url>)
      .def_property_readonly("pnl_column_count", &member<&Manifest::pnl_column_count>)
      .def_property_readonly("found_signals", &member<&Manifest::found_signals>)
      .def_property_readonly("found_strategies", &member<&Manifest::found_strategies>)
      .def_property_readonly("useful_signals", &member<&Manifest::useful_signals>)
      .def_property_readonly(
          "files", [](const Manifest& manifest) { return python_of(manifest.files()); },
          "The path-to-entry map, as a new dict on each read.")
      .def(
          "to_dict", [](const Manifest& manifest) { return python_of(manifest.to_dict()); },
          "A new dict of the whole manifest.")
      .def("__repr__", [](const Manifest& manifest) {
        const Json& files = manifest.files();
        return "<Manifest era_id=" + dump(manifest.era_id) + " version=" + dump(manifest.version) +
               " files=" + std::to_string(files.is_object() ? files.size() : 0) + ">";
      });
}

py::object python_sync_result(const SyncResult& r) {
  return g_records->sync_result(r.features_downloaded, r.useful_signals_downloaded, r.bytes_downloaded, r.era_id,
                                r.t_signal_is, r.t_strategy_is, r.n_instruments, r.n_features, r.n_useful_signals,
                                r.n_found_strategies, r.pnl_column_count, r.vocabulary_downloaded,
                                r.shuffle_seed_downloaded);
}

py::object python_verify_result(const VerifyResult& r) {
  return g_records->verify_result(r.valid, python_list(r.corrupted_files), python_list(r.missing_files));
}

py::object python_progress(const DownloadProgress& p) {
  return g_records->download_progress(p.files_done, p.files_selected, p.bytes_done, p.bytes_selected);
}

}  // namespace quillmarsh::sync::python
