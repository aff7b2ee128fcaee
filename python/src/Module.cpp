// The compiled part of the `veltancmat` Python package. The classes users
// see (veltancmat.PCA, ...) are written in Python on top of these fits; the
// fitted state stays in C++ objects so prediction needs no copy back.

#include "Arrays.h"
#include "Engine.h"
#include "Models.h"
#include "Spc.h"
#include "Spectra.h"
#include "Statistics.h"

#include "veltancmat/platform/ExceptionMessage.h"

#include <pybind11/stl.h>

namespace py = pybind11;
using namespace veltan_py;

namespace {

// A fit's table as columns of equal length, one entry per fitted component
// (or OPLS stage), the rejected one included.
py::dict Records(const std::vector<ComponentRecord>& records)
{
    const auto column = [&](float ComponentRecord::*field) {
        py::array_t<double> out(static_cast<py::ssize_t>(records.size()));
        auto cells = out.mutable_unchecked<1>();
        for (std::size_t r = 0; r < records.size(); ++r)
            cells(static_cast<py::ssize_t>(r)) = FromValue(records[r].*field);
        return out;
    };
    py::list significance;
    for (const ComponentRecord& r : records)
        significance.append(r.significance);
    py::dict table;
    table["r2x"] = column(&ComponentRecord::r2x);
    table["r2x_cum"] = column(&ComponentRecord::r2xCum);
    table["r2x_orthogonal"] = column(&ComponentRecord::r2xOrthogonal);
    table["r2y"] = column(&ComponentRecord::r2y);
    table["r2y_cum"] = column(&ComponentRecord::r2yCum);
    table["eigenvalue"] = column(&ComponentRecord::eigenvalue);
    table["q2"] = column(&ComponentRecord::q2);
    table["q2_cum"] = column(&ComponentRecord::q2Cum);
    table["q2_limit"] = column(&ComponentRecord::q2Limit);
    table["significance"] = significance;
    return table;
}

py::array_t<double> Row(const std::vector<float>& values)
{
    py::array_t<double> out(static_cast<py::ssize_t>(values.size()));
    auto cells = out.mutable_unchecked<1>();
    for (std::size_t i = 0; i < values.size(); ++i)
        cells(static_cast<py::ssize_t>(i)) = FromValue(values[i]);
    return out;
}

FitOptions Options(std::optional<int> components, const std::string& scale, int cvGroups)
{
    FitOptions options;
    options.components = components;
    options.scale = ScalingNamed(scale);
    options.cvGroups = cvGroups;
    return options;
}

void BindModels(py::module_& m)
{
    py::class_<PcaModel>(m, "PcaFit", "A fitted PCA model (see veltancmat.PCA)")
        .def_property_readonly("components", [](const PcaModel& f) { return f.components; })
        .def_property_readonly("cv_groups", [](const PcaModel& f) { return f.cvGroups; })
        .def_property_readonly("stop_reason", [](const PcaModel& f) { return f.stopReason; })
        .def_property_readonly("records", [](const PcaModel& f) { return Records(f.records); })
        .def_property_readonly("scores", [](const PcaModel& f) { return FromPrim(f.scores, f.components); })
        .def_property_readonly("loadings", [](const PcaModel& f) { return FromPrim(f.loadings, f.components); })
        .def_property_readonly("center", [](const PcaModel& f) { return FromVector(f.scale.GetCenterVector()); })
        .def_property_readonly("scale", [](const PcaModel& f) { return FromVector(f.scale.GetScaleVector()); })
        .def("transform", [](const PcaModel& f, const py::handle& x) {
            NCDataMatrix<float> data = ToMatrix(x, "X");
            NCDataMatrix<float> scores = RunInterruptible([&](NCProgress&) { return f.Transform(std::move(data)); });
            return FromPrim(scores, f.components);
        });
    m.def("fit_pca",
          [](const py::handle& x, std::optional<int> components, const std::string& scale, int cvGroups) {
              const FitOptions options = Options(components, scale, cvGroups);
              NCDataMatrix<float> data = ToMatrix(x, "X");
              return RunInterruptible([&](NCProgress& progress) { return FitPca(std::move(data), options, progress); });
          },
          py::arg("X"), py::arg("n_components") = py::none(), py::arg("scale") = "uv", py::arg("cv_groups") = 7);

    py::class_<PlsModel>(m, "PlsFit", "A fitted PLS model (see veltancmat.PLS)")
        .def_property_readonly("components", [](const PlsModel& f) { return f.components; })
        .def_property_readonly("cv_groups", [](const PlsModel& f) { return f.cvGroups; })
        .def_property_readonly("stop_reason", [](const PlsModel& f) { return f.stopReason; })
        .def_property_readonly("records", [](const PlsModel& f) { return Records(f.records); })
        .def_property_readonly("x_scores", [](const PlsModel& f) { return FromPrim(f.tprim, f.components); })
        .def_property_readonly("y_scores", [](const PlsModel& f) { return FromPrim(f.uprim, f.components); })
        .def_property_readonly("x_weights", [](const PlsModel& f) { return FromPrim(f.wprim, f.components); })
        .def_property_readonly("x_loadings", [](const PlsModel& f) { return FromPrim(f.pprim, f.components); })
        .def_property_readonly("y_loadings", [](const PlsModel& f) { return FromPrim(f.cprim, f.components); })
        .def_property_readonly("coefficients", [](const PlsModel& f) { return FromMatrix(f.rawCoefficients); })
        .def_property_readonly("scaled_coefficients", [](const PlsModel& f) { return FromMatrix(f.coefficients); })
        .def_property_readonly("intercepts", [](const PlsModel& f) { return Row(f.intercepts); })
        .def("predict", [](const PlsModel& f, const py::handle& x) {
            NCDataMatrix<float> data = ToMatrix(x, "X");
            return FromMatrix(RunInterruptible([&](NCProgress&) { return f.Predict(std::move(data)); }));
        });
    m.def("fit_pls",
          [](const py::handle& x, const py::handle& y, std::optional<int> components, const std::string& scale,
             int cvGroups) {
              const FitOptions options = Options(components, scale, cvGroups);
              NCDataMatrix<float> xData = ToMatrix(x, "X");
              NCDataMatrix<float> yData = ToMatrix(y, "Y");
              return RunInterruptible([&](NCProgress& progress) {
                  return FitPls(std::move(xData), std::move(yData), options, progress);
              });
          },
          py::arg("X"), py::arg("Y"), py::arg("n_components") = py::none(), py::arg("scale") = "uv",
          py::arg("cv_groups") = 7);

    py::class_<OplsModel>(m, "OplsFit", "A fitted OPLS model (see veltancmat.OPLS)")
        .def_property_readonly("predictive", [](const OplsModel& f) { return f.predictive; })
        .def_property_readonly("orthogonal", [](const OplsModel& f) { return f.orthogonal; })
        .def_property_readonly("cv_groups", [](const OplsModel& f) { return f.cvGroups; })
        .def_property_readonly("stop_reason", [](const OplsModel& f) { return f.stopReason; })
        .def_property_readonly("records", [](const OplsModel& f) { return Records(f.stages); })
        .def_property_readonly("x_scores",
                               [](const OplsModel& f) { return FromPrim(*f.model->GetTprim(), f.predictive); })
        .def_property_readonly("x_weights",
                               [](const OplsModel& f) { return FromPrim(*f.model->GetWprim(), f.predictive); })
        .def_property_readonly("x_loadings",
                               [](const OplsModel& f) { return FromPrim(*f.model->GetPprim(), f.predictive); })
        .def_property_readonly("y_loadings",
                               [](const OplsModel& f) { return FromPrim(*f.model->GetCprim(), f.predictive); })
        .def_property_readonly("x_ortho_scores",
                               [](const OplsModel& f) { return FromPrim(*f.model->GetTOprim(), f.orthogonal); })
        .def_property_readonly("x_ortho_weights",
                               [](const OplsModel& f) { return FromPrim(*f.model->GetWOprim(), f.orthogonal); })
        .def_property_readonly("x_ortho_loadings",
                               [](const OplsModel& f) { return FromPrim(*f.model->GetPOprim(), f.orthogonal); })
        .def("predict", [](const OplsModel& f, const py::handle& x) {
            NCDataMatrix<float> data = ToMatrix(x, "X");
            return FromMatrix(RunInterruptible([&](NCProgress&) { return f.Predict(std::move(data)); }));
        });
    m.def("fit_opls",
          [](const py::handle& x, const py::handle& y, std::optional<int> orthogonal, std::optional<int> predictive,
             const std::string& scale, int cvGroups) {
              OplsOptions options;
              options.orthogonal = orthogonal;
              options.predictive = predictive.value_or(0);
              if (predictive && *predictive < 1)
                  throw py::value_error("n_predictive=" + std::to_string(*predictive) +
                                        ": must be at least 1, or None");
              options.scale = ScalingNamed(scale);
              options.cvGroups = cvGroups;
              NCDataMatrix<float> xData = ToMatrix(x, "X");
              NCDataMatrix<float> yData = ToMatrix(y, "Y");
              return RunInterruptible([&](NCProgress& progress) {
                  return FitOpls(std::move(xData), std::move(yData), options, progress);
              });
          },
          py::arg("X"), py::arg("Y"), py::arg("n_orthogonal") = py::none(), py::arg("n_predictive") = py::none(),
          py::arg("scale") = "uv", py::arg("cv_groups") = 7);
}

} // namespace

PYBIND11_MODULE(_core, m)
{
    m.doc() = "Compiled engine of the veltancmat package";
    RegisterExceptionTranslators();
    BindModels(m);
    BindStatistics(m);
    BindSpc(m);
    BindSpectra(m);
    // The library looks for its catalogues where it was installed, which a
    // wheel's build prefix is not; the package points it at the folder it
    // finds beside itself (see __init__.py).
    m.attr("_installed_catalogues") = VELTAN_PYTHON_CATALOGUES;
    m.def("_use_catalogues",
          [](const std::string& folder) { MessageCatalog::SetLanguage(MessageCatalog::GetLanguage(), folder); });
}
