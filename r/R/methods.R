print.orb_recording <- function(x, ...) {
  if (!is.null(x$info$recordings)) {
    cat(sprintf("<orb_recording of %d recordings>\n", length(x$info$files)))
    rows <- vapply(x[orb_tables], nrow, 0L)
    cat(sprintf("  %-11s%s\n", names(rows), format(rows, big.mark = ",")), sep = "")
    return(invisible(x))
  }
  cat(format(summary(x)), sep = "\n")
  invisible(x)
}

summary.orb_recording <- function(object, ...) {
  info <- object$info
  if (!is.null(info$recordings))
    return(structure(lapply(seq_along(info$files), function(i) {
      blocks <- object$blocks[as.integer(object$blocks$file) == i, , drop = FALSE]
      orb_summary(info$recordings[[i]], blocks, info$files[[i]])
    }), class = "summary.orb_recording"))
  structure(list(orb_summary(info, object$blocks, info$path)), class = "summary.orb_recording")
}

# What `orb info` shows about one recording, as a list.
orb_summary <- function(info, blocks, file) {
  counts <- info$counts
  list(
    file = if (is.null(file)) "<bytes>" else file,
    revision = info$revision,
    model = info$oculant_revision,
    blocks = if (all(c("time", "end_time", "sample_rate", "eyes") %in% names(blocks)))
      data.frame(start_ms = blocks$time, end_ms = blocks$end_time,
                 duration_ms = blocks$end_time - blocks$time, sample_rate = blocks$sample_rate,
                 eyes = vapply(blocks$eyes, orb_eyes_name, "")),
    samples = info$samples,
    fixations = counts[["fixations"]],
    saccades = counts[["saccades"]],
    blinks = counts[["blinks"]],
    messages = counts[["messages"]],
    trials = counts[["trials"]],
    placeholder_samples = info$placeholders,
    duration_ms = info$duration_ms,
    damage = info$log
  )
}

format.summary.orb_recording <- function(x, ...) {
  unlist(lapply(seq_along(x), function(i) c(if (i > 1) "", orb_summary_lines(x[[i]]))))
}

print.summary.orb_recording <- function(x, ...) {
  cat(format(x), sep = "\n")
  invisible(x)
}

orb_models <- c("", "MK", "HQ")

orb_summary_lines <- function(r) {
  lines <- r$file
  row <- function(key, value) lines <<- c(lines, sprintf("  %-11s%s", key, value))
  n <- function(x) format(x, big.mark = ",", scientific = FALSE)
  model <- if (r$model %in% 1:3) orb_models[[r$model]] else ""
  row("tracker", sprintf("revision %d, model %d%s", r$revision, r$model,
                         if (nzchar(model)) sprintf(" (%s)", model) else ""))
  blocks <- r$blocks
  nb <- if (is.null(blocks)) 0L else nrow(blocks)
  shown <- seq_len(nb)
  if (nb > 20) shown <- c(1:10, NA, (nb - 4):nb)
  width <- nchar(as.character(nb))
  for (k in shown) {
    if (is.na(k)) {
      row("", sprintf("... %d more blocks", nb - 15))
      next
    }
    b <- blocks[k, ]
    span <- if (is.na(b$end_ms)) sprintf("from %.15g ms, no block end", b$start_ms) else
      sprintf("%.15g-%.15g ms (%.3f s)", b$start_ms, b$end_ms, b$duration_ms / 1000)
    row(if (nb > 1) sprintf("block %*d", width, k) else "block",
        sprintf("%s, %g Hz, %s eye%s", span, b$sample_rate, b$eyes,
                if (b$eyes == "both") "s" else ""))
  }
  if (nb == 0 && !is.null(blocks)) row("blocks", "none")
  filled <- r$placeholder_samples
  row("samples", paste0(n(r$samples), if (filled) sprintf(" (%s placeholders filled)", n(filled)) else ""))
  for (key in c("fixations", "saccades", "blinks", "messages", "trials"))
    row(key, n(r[[key]]))
  orb_damage_rows(r$damage, row)
  lines
}

# The library's lines, those that differ only in their numbers taken
# together: the first of them and how many more.
orb_damage_rows <- function(damage, row, most = 8L) {
  if (!length(damage)) {
    row("damage", "none reported")
    return(invisible())
  }
  kind <- gsub("[0-9]+", "#", damage)
  kinds <- unique(kind)
  for (k in seq_along(kinds)) {
    if (k > most) {
      row("", sprintf("... %d more kinds of lines (%d lines in all)", length(kinds) - most,
                      length(damage)))
      break
    }
    lines <- damage[kind == kinds[[k]]]
    more <- length(lines) - 1L
    row(if (k == 1) "damage" else "", paste0(lines[[1]], if (more)
      sprintf("  (and %d more like it)", more) else ""))
  }
}
