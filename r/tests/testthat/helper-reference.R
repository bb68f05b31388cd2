# The recordings and reference tables that the repository's fixture program
# writes (./dev test sets ORBAPI_R_FIXTURES to its folder).  Tests that need
# them are skipped where they are not at hand.
fixtures <- Sys.getenv("ORBAPI_R_FIXTURES")

skip_without_fixtures <- function() {
  skip_if(!nzchar(fixtures) || !file.exists(file.path(fixtures, "cases.tsv")),
          "ORBAPI_R_FIXTURES names no folder of reference recordings")
}

fixture <- function(name) file.path(fixtures, name)

example_recording <- function() system.file("extdata", "example.orb", package = "orbapi")

cases <- function() {
  utils::read.delim(fixture("cases.tsv"), colClasses = "character", na.strings = "NA")
}

# 8 hex digits of a 32-bit float's bits, as R numbers.
float_bits <- function(hex) {
  if (!length(hex)) return(numeric())
  hi <- strtoi(substr(hex, 1, 4), 16L)
  lo <- strtoi(substr(hex, 5, 8), 16L)
  bytes <- as.raw(rbind(lo %% 256L, lo %/% 256L, hi %% 256L, hi %/% 256L))
  readBin(bytes, "double", n = length(hex), size = 4L, endian = "little")
}

hex_text <- function(hex) {
  vapply(hex, function(h) {
    if (is.na(h)) return(NA_character_)
    bytes <- as.raw(strtoi(substring(h, seq(1, nchar(h), 2), seq(2, nchar(h), 2)), 16L))
    s <- rawToChar(bytes[seq_along(bytes)])
    Encoding(s) <- "UTF-8"
    s
  }, "", USE.NAMES = FALSE)
}

# One reference table: a list of typed columns.
reference_table <- function(prefix, table) {
  lines <- readLines(fixture(sprintf("%s.%s.tsv", prefix, table)), encoding = "UTF-8")
  if (length(lines) < 2L) return(list())
  names <- strsplit(lines[[1]], "\t", fixed = TRUE)[[1]]
  kinds <- strsplit(lines[[2]], "\t", fixed = TRUE)[[1]]
  cells <- if (length(lines) > 2L)
    matrix(unlist(strsplit(lines[-(1:2)], "\t", fixed = TRUE)), nrow = length(names))
  else matrix(character(), nrow = length(names))
  out <- lapply(seq_along(names), function(k) {
    v <- cells[k, ]
    v[v == "NA"] <- NA
    switch(kinds[[k]],
           d = as.numeric(v),
           f = float_bits(v),
           i = as.integer(v),
           s = hex_text(v))
  })
  stats::setNames(out, names)
}

# The reference with the package's missing-value rule applied: the stored
# markers of float columns of samples and events, and of the samples' status,
# input and extra-data type words, become NA.
without_markers <- function(ref, table) {
  if (!table %in% c("samples", "events", "fixations", "saccades", "blinks")) return(ref)
  floats <- c(-32768, 1e8)
  for (k in names(ref)) {
    x <- ref[[k]]
    if (is.double(x) && !k %in% c("time", "start_time", "end_time", "duration"))
      x[x %in% floats] <- NA
    if (table == "samples" && k %in% c("status", "input")) x[x == 32768L] <- NA
    if (table == "samples" && k == "extra_type") x[x == -32768L] <- NA
    ref[[k]] <- x
  }
  ref
}

# Reads a case as the package does, the library's warnings kept apart.
read_case <- function(case, ...) {
  warnings <- character()
  rec <- withCallingHandlers(
    read_orb(fixture(case$file), consistency = as.integer(case$consistency),
             velocities = case$velocities == "1", camera = case$camera == "1",
             trial_start = case$trial_start,
             trial_end = if (is.na(case$trial_end)) NULL else case$trial_end,
             variables = "all", ...),
    orb_warning = function(w) {
      warnings <<- c(warnings, conditionMessage(w))
      invokeRestart("muffleWarning")
    })
  attr(rec, "warnings") <- warnings
  rec
}

expect_table <- function(actual, expected, what) {
  expect_identical(names(actual), names(expected), label = paste(what, "column names"))
  for (k in names(expected))
    expect_identical(actual[[k]], expected[[k]], label = paste(what, k))
}
