# One measurement of the R package, run by bench/bench_r.py in a process of
# its own:
#
#   Rscript bench/bench_r.R PATH REPEAT [COLUMN...]
#
# Reads the recording REPEAT times with read_orb() (only the COLUMNs of the
# samples when given) and prints one line of JSON: the wall and CPU times, the peak
# memory of the process (VmHWM) before and after the first read, the bytes
# of the data frames, and the floor of the same run: making vectors of the
# same types and lengths, written once into fresh memory.
args <- commandArgs(trailingOnly = TRUE)
path <- args[[1]]
repeat_n <- as.integer(args[[2]])
columns <- if (length(args) > 2) args[-(1:2)] else NULL
suppressPackageStartupMessages({
  library(orbapi)
  requireNamespace("tibble", quietly = TRUE)
})

peak <- function() {
  line <- grep("^VmHWM:", readLines("/proc/self/status"), value = TRUE)
  as.numeric(gsub("[^0-9]", "", line)) * 1024
}
bytes <- function(rec) {
  sum(vapply(rec[names(rec) != "info"], function(t)
    sum(vapply(t, function(x) as.numeric(utils::object.size(x)), 0)), 0))
}

base <- peak()
times <- numeric()
cpu <- numeric()
floors <- numeric()
for (i in seq_len(repeat_n)) {
  gc()
  t0 <- proc.time()
  rec <- read_orb(path, columns = columns)
  t1 <- proc.time()
  times <- c(times, t1[["elapsed"]] - t0[["elapsed"]])
  # user and system time of every thread of the process
  cpu <- c(cpu, sum(t1[c("user.self", "sys.self")]) - sum(t0[c("user.self", "sys.self")]))
  if (i == 1) {
    after <- peak()
    frames <- bytes(rec)
    rows <- nrow(rec$samples)
    ncols <- ncol(rec$samples)
  }
  shapes <- lapply(rec[names(rec) != "info"], function(t) lapply(t, function(x) list(typeof(x), length(x))))
  rm(rec)
  gc()
  t0 <- proc.time()[["elapsed"]]
  made <- lapply(shapes, function(t) lapply(t, function(s) vector(s[[1]], s[[2]])))
  floors <- c(floors, proc.time()[["elapsed"]] - t0)
  rm(made)
}
cat(sprintf(paste0('{"best": %.4f, "times": [%s], "cpu": %.4f, "floor": %.4f, "peak": %.0f, "base": %.0f, ',
                   '"frames_bytes": %.0f, "rows": %d, "sample_columns": %d}\n'),
            min(times), paste(sprintf("%.4f", times), collapse = ", "), min(cpu), min(floors), after, base,
            frames, rows, ncols))
