# Builds the tables of an orb_recording from the vectors the native read
# made: every item table is cut to the window already; here the events are
# split into messages and the end items of fixations, saccades and blinks,
# blocks get their end times and trials their variables.
orb_recording <- function(raw, variables, columns, name, windowed) {
  events <- raw$events
  type <- events$type
  is_message <- type == orb_message_code
  others <- events[setdiff(names(events), c("message_offset", "message_length"))]
  event_rows <- lapply(others, `[`, !is_message)
  messages <- list(time = events$start_time[is_message], text = raw$texts,
                   block = events$block[is_message], trial = events$trial[is_message])
  said <- if (is.null(raw$all_texts)) messages else list(text = raw$all_texts, trial = raw$all_trials)
  trials <- orb_trial_table(raw$trials, if (windowed) raw$window, said, variables)
  tables <- list(samples = raw$samples, events = event_rows)
  for (kind in names(orb_end_codes)) {
    keep <- event_rows$type == orb_end_codes[[kind]]
    t <- lapply(event_rows, `[`, keep)
    t$duration <- t$end_time - t$start_time
    tables[[kind]] <- t
  }
  tables$messages <- messages
  tables$blocks <- orb_block_table(raw$blocks)
  if (windowed) {
    inside <- tables$blocks$index >= raw$window[[1]] & tables$blocks$index < raw$window[[2]]
    tables$blocks <- lapply(tables$blocks, `[`, inside)
  }
  tables$trials <- trials

  for (table in names(columns)) {
    if (table == "samples") next
    missing <- setdiff(columns[[table]], names(tables[[table]]))
    if (length(missing))
      orb_unknown_column(table, missing[[1]], names(tables[[table]]))
    tables[[table]] <- tables[[table]][columns[[table]]]
  }

  blocks <- tables$blocks
  facts <- raw$facts
  info <- list(
    sample_rate = if (length(blocks$time)) blocks$sample_rate[[1]] else NA_real_,
    eyes = if (length(blocks$time)) orb_eyes_name(blocks$eyes[[1]]) else NA_character_,
    blocks = length(blocks$time),
    counts = vapply(tables, orb_rows, 0L),
    preamble = facts$preamble,
    revision = facts$revision,
    oculant_revision = facts$oculant_revision,
    items = facts$items,
    samples = orb_rows(raw$samples),
    duration_ms = facts$duration_ms,
    placeholders = facts$placeholders,
    window = if (windowed) stats::setNames(raw$window, c("from_index", "to_index")),
    log = raw$log,
    path = name,
    library_version = .Call(`_orbapi_orb_library_version_`)
  )
  structure(c(lapply(tables[orb_tables], orb_frame), list(info = info)),
            class = "orb_recording")
}

orb_eyes_name <- function(code) {
  if (code %in% 1:3) orb_eyes[[code]] else as.character(code)
}

# One row per block start, with the time of the end that closes it (NA when
# none does before the next start).
orb_block_table <- function(blocks) {
  state <- blocks$state
  starts <- which(state == 1L)
  ends <- which(state != 1L)
  next_start <- c(starts[-1], length(state) + 1L)
  end_time <- rep(NA_real_, length(starts))
  following <- findInterval(starts, ends) + 1L
  has <- following <= length(ends)
  has[has] <- ends[following[has]] < next_start[has]
  end_time[has] <- blocks$time[ends[following[has]]]
  out <- list(block = blocks$block[starts])
  for (k in setdiff(names(blocks), c("block", "index")))
    out[[k]] <- blocks[[k]][starts]
  out$end_time <- end_time
  out$index <- blocks$index[starts]
  out
}

# One row per trial (that overlaps the window, when there is one: index
# positions from, to), then its variables: the values of the trial's
# `KEY VALUE` messages.
orb_trial_table <- function(trials, window, messages, variables) {
  n_all <- length(trials$start_time)
  keep <- rep(TRUE, n_all)
  if (!is.null(window)) {
    s <- trials$start_index
    e <- trials$end_index
    from <- window[[1]]
    to <- window[[2]]
    keep <- ((s < to & e > from) | (s == e & s >= from & s < to)) & from < to
  }
  number <- seq_len(n_all)[keep] - 1L
  out <- list(trial = number)
  for (k in c("start_time", "end_time", "duration", "start_index", "end_index", "block"))
    out[[k]] <- trials[[k]][keep]
  if (is.null(variables)) return(out)

  at <- match(messages$trial, number)
  text <- trimws(messages$text[!is.na(at)], which = "left")
  at <- at[!is.na(at)]
  key <- sub("[[:space:]].*$", "", text)
  has_value <- grepl("^[^[:space:]]+[[:space:]]+[^[:space:]]", text)
  value <- trimws(sub("^[^[:space:]]+[[:space:]]+", "", text))
  pick <- has_value & (identical(variables, "all") | key %in% variables)
  keys <- if (identical(variables, "all")) unique(key[pick]) else variables
  for (k in keys) {
    sel <- which(pick & key == k)
    values <- rep(NA_character_, length(number))
    values[at[sel]] <- value[sel] # the last message of a trial wins
    if (k %in% names(out))
      k <- paste0("var_", k)
    out[[k]] <- orb_typed(values)
  }
  out
}

# The values as integers when every one is a whole number, as numbers (NA
# where absent) when every present one is a number, else as texts.
orb_typed <- function(values) {
  present <- values[!is.na(values)]
  if (length(present) && !anyNA(values) && all(grepl("^[+-]?[0-9]+$", values))) {
    n <- as.numeric(values)
    if (all(abs(n) <= .Machine$integer.max)) return(as.integer(n))
    return(n)
  }
  n <- suppressWarnings(as.numeric(values))
  if (!anyNA(n[!is.na(values)]) && !any(grepl("^[[:space:]]*[+-]?0[xX]", present)))
    return(n)
  values
}

orb_rows <- function(cols) {
  if (length(cols)) length(cols[[1]]) else 0L
}

# A table as a tibble when tibble is installed, else as a data frame; the
# columns are not copied.
orb_frame <- function(cols) {
  n <- orb_rows(cols)
  if (requireNamespace("tibble", quietly = TRUE))
    return(tibble::new_tibble(cols, nrow = n))
  structure(cols, class = "data.frame", row.names = .set_row_names(n))
}

unclass_frame <- function(frame) {
  attributes(frame) <- list(names = names(frame))
  frame
}

# The missing value that fills a column some recordings lack.
orb_na_like <- function(parts, column) {
  for (p in parts) {
    x <- p[[column]]
    if (!is.null(x)) return(x[NA_integer_])
  }
  NA
}
