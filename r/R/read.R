#' The tables of a recording, in the order they are listed.
orb_tables <- c("samples", "events", "fixations", "saccades", "blinks",
                "messages", "blocks", "trials")

# Item-type codes of the end items that make the fixation, saccade and blink
# tables, and of messages.
orb_end_codes <- c(fixations = 8L, saccades = 6L, blinks = 4L)
orb_message_code <- 24L
orb_eyes <- c("left", "right", "both")

read_orb <- function(path, velocities = FALSE, camera = FALSE, consistency = 0,
                     trial_start = "TRIALID", variables = NULL, columns = NULL,
                     start = NULL, end = NULL, sentinels = FALSE,
                     trial_end = NULL) {
  source <- orb_source(path)
  flag <- function(x, name) {
    if (!is.logical(x) || length(x) != 1L || is.na(x))
      orb_bad_argument(name, "must be TRUE or FALSE")
    x
  }
  velocities <- flag(velocities, "velocities")
  camera <- flag(camera, "camera")
  sentinels <- flag(sentinels, "sentinels")
  if (!is.numeric(consistency) || length(consistency) != 1L || is.na(consistency) ||
      consistency != trunc(consistency) || consistency < 0 || consistency > 15)
    orb_bad_argument("consistency", "must be a whole number from 0 to 15")
  trial_start <- orb_text_argument(trial_start, "trial_start")
  trial_end <- orb_text_argument(trial_end, "trial_end")
  variables <- orb_variables_argument(variables)
  columns <- orb_columns_argument(columns)
  start <- orb_time_argument(start, "start")
  end <- orb_time_argument(end, "end")
  if (!is.na(start) && !is.na(end) && start > end)
    orb_bad_argument("end", sprintf("(%g) comes before start (%g)", end, start))

  raw <- .Call(`_orbapi_orb_read_`, source$data, as.integer(consistency), velocities,
               camera, trial_start, trial_end, sentinels, columns$samples, start, end)
  # A refused file's log lines are its reason; a read file's are warnings.
  if (!is.null(raw$error))
    orb_refused(source$name, raw$error, raw$code)
  orb_log(raw$log, source$name)
  if (!is.null(raw$unknown))
    orb_unknown_column("samples", raw$unknown, raw$known)
  orb_recording(raw, variables, columns, source$name, !is.na(start) || !is.na(end))
}

read_orb_many <- function(paths, ..., pattern = "\\.orb$") {
  if (!is.character(paths) || !length(paths) || anyNA(paths))
    orb_bad_argument("paths", "must name recordings or folders of recordings")
  files <- unlist(lapply(paths, function(p) {
    if (dir.exists(p))
      sort(list.files(p, pattern = pattern, full.names = TRUE, ignore.case = TRUE))
    else p
  }), use.names = FALSE)
  if (!length(files))
    stop(errorCondition(sprintf("no recording found in %s", paste(paths, collapse = ", ")),
                        class = "orb_missing_file", call = NULL))
  recordings <- lapply(files, read_orb, ...)
  names <- basename(files)
  if (anyDuplicated(names))
    names <- make.unique(files, sep = "#")
  file <- factor(names, levels = unique(names))
  tables <- lapply(stats::setNames(nm = orb_tables), function(table) {
    parts <- lapply(recordings, function(r) unclass_frame(r[[table]]))
    rows <- vapply(parts, orb_rows, 0L)
    all <- unique(unlist(lapply(parts, names), use.names = FALSE))
    cols <- list(file = rep(file, rows))
    for (column in all) {
      pieces <- lapply(seq_along(parts), function(i) {
        part <- parts[[i]]
        if (!is.null(part[[column]])) part[[column]] else rep(orb_na_like(parts, column), rows[[i]])
      })
      cols[[column]] <- unlist(pieces, use.names = FALSE)
    }
    orb_frame(cols)
  })
  info <- list(files = levels(file), recordings = lapply(recordings, `[[`, "info"))
  structure(c(tables, list(info = info)), class = "orb_recording")
}

# -- arguments ---------------------------------------------------------------

orb_bad_argument <- function(name, what) {
  stop(errorCondition(sprintf("`%s` %s", name, what), class = "orb_bad_argument", call = NULL))
}

orb_source <- function(path) {
  if (is.raw(path))
    return(list(data = path, name = NULL))
  if (!is.character(path) || length(path) != 1L || is.na(path) || !nzchar(path))
    orb_bad_argument("path", "must be the path of one recording (or its bytes as a raw vector)")
  full <- path.expand(path)
  if (!file.exists(full) || dir.exists(full))
    stop(errorCondition(sprintf("cannot read '%s': no such file", path),
                        class = "orb_missing_file", call = NULL))
  list(data = enc2native(full), name = path)
}

orb_text_argument <- function(x, name) {
  if (is.null(x)) return(NULL)
  if (!is.character(x) || length(x) != 1L || is.na(x) || !nzchar(x))
    orb_bad_argument(name, "must be one non-empty text, or NULL")
  enc2utf8(x)
}

orb_time_argument <- function(x, name) {
  if (is.null(x)) return(NA_real_)
  if (!is.numeric(x) || length(x) != 1L || is.na(x))
    orb_bad_argument(name, "must be one time in milliseconds, or NULL")
  as.double(x)
}

orb_variables_argument <- function(x) {
  if (is.null(x) || identical(x, "all")) return(x)
  if (!is.character(x) || anyNA(x))
    orb_bad_argument("variables", "must be the keys of trial variables, \"all\", or NULL")
  unique(x)
}

# `columns`: NULL, a character vector (columns of the samples), or a list of
# character vectors named by table.
orb_columns_argument <- function(x) {
  if (is.null(x)) return(list())
  if (is.character(x)) x <- list(samples = x)
  if (!is.list(x) || is.null(names(x)) || any(!nzchar(names(x))))
    orb_bad_argument("columns", "must be column names of the samples, or a list of them named by table")
  unknown <- setdiff(names(x), orb_tables)
  if (length(unknown))
    orb_bad_argument("columns", sprintf("names an unknown table '%s'; the tables are %s",
                                       unknown[[1]], paste(orb_tables, collapse = ", ")))
  for (table in names(x)) {
    if (!is.character(x[[table]]) || anyNA(x[[table]]))
      orb_bad_argument("columns", sprintf("$%s must be column names", table))
    x[[table]] <- unique(x[[table]])
  }
  x
}

orb_unknown_column <- function(table, column, known) {
  orb_bad_argument("columns", sprintf("names no column '%s' of %s; its columns are %s",
                                      column, table, paste(known, collapse = ", ")))
}

# -- conditions ----------------------------------------------------------------

# The library's log lines become warnings of class `orb_warning`, named by the
# recording they concern.
orb_log <- function(lines, name) {
  for (line in lines) {
    text <- if (is.null(name)) line else sprintf("%s: %s", name, line)
    warning(warningCondition(text, class = "orb_warning", call = NULL))
  }
}

orb_refused <- function(name, reason, code) {
  reason <- trimws(reason)
  if (!nzchar(reason)) reason <- "the library refused the recording"
  if (identical(code, -3L)) reason <- "memory ran out while reading the recording"
  if (identical(code, -2L)) reason <- "the read was interrupted"
  where <- if (is.null(name)) "the recording's bytes" else sprintf("'%s'", name)
  stop(errorCondition(sprintf("cannot read %s: %s", where, reason),
                      class = "orb_error", call = NULL, reason = reason, path = name))
}
