// Every subcommand of the tool, in the order --help lists them: one
// VELTAN_COMMAND(Name) line per command, whose file pair defines
// `std::unique_ptr<Command> MakeNameCommand()`. Included with the macro
// defined by the reader; deliberately without an include guard.
VELTAN_COMMAND(Pca)
VELTAN_COMMAND(Pls)
VELTAN_COMMAND(Opls)
VELTAN_COMMAND(O2pls)
VELTAN_COMMAND(Normality)
VELTAN_COMMAND(Capability)
VELTAN_COMMAND(Histogram)
VELTAN_COMMAND(Fisher)
VELTAN_COMMAND(Predict)
VELTAN_COMMAND(Chart)
VELTAN_COMMAND(Smooth)
VELTAN_COMMAND(Cluster)
VELTAN_COMMAND(Spectrum)
VELTAN_COMMAND(Wavelet)
