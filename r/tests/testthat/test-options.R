# Chosen columns and time windows, against the whole read.
test_that("columns names the samples' columns to make, in the order given", {
  skip_without_fixtures()
  path <- fixture("two_blocks.orb")
  whole <- read_orb(path)
  some <- read_orb(path, columns = c("trial", "time", "gaze_x_left"))
  expect_identical(names(some$samples), c("trial", "time", "gaze_x_left"))
  for (k in names(some$samples)) expect_identical(some$samples[[k]], whole$samples[[k]])
  expect_identical(some$fixations, whole$fixations)

  per_table <- read_orb(path, columns = list(samples = "time", fixations = c("duration", "eye"),
                                             trials = "trial"))
  expect_identical(names(per_table$samples), "time")
  expect_identical(per_table$fixations, whole$fixations[c("duration", "eye")])
  expect_identical(names(per_table$trials), "trial")
  expect_identical(per_table$events, whole$events)
})

test_that("an unknown column or table is an error that names the known ones", {
  skip_without_fixtures()
  path <- fixture("two_blocks.orb")
  expect_error(read_orb(path, columns = "gaze_x"), class = "orb_bad_argument",
               regexp = "no column 'gaze_x' of samples; its columns are time, raw_x_left")
  expect_error(read_orb(path, columns = list(blinks = "nope")), class = "orb_bad_argument",
               regexp = "no column 'nope' of blinks")
  expect_error(read_orb(path, columns = list(eyes = "time")), class = "orb_bad_argument",
               regexp = "unknown table 'eyes'")
  expect_error(read_orb(path, columns = "gaze_vel_x_left"), class = "orb_bad_argument")
  expect_named(read_orb(path, velocities = TRUE, columns = "gaze_vel_x_left")$samples,
               "gaze_vel_x_left")
})

# The rows of `whole` that a window [from, to) of index positions holds.
rows_in <- function(table, window) {
  keep <- table$index >= window[[1]] & table$index < window[[2]]
  table[keep, , drop = FALSE]
}

test_that("a window holds the rows of the index stretch from start to end", {
  skip_without_fixtures()
  path <- fixture("two_blocks.orb")
  whole <- read_orb(path, variables = "all")
  # Across the block boundary (the first block ends at 10300, the second
  # starts at 11000), in a 1000 Hz block, and at the half-open ends.
  for (w in list(c(10250, 11010), c(10010, 10020.5), c(9000, 10001), c(11490, 20000))) {
    part <- read_orb(path, start = w[[1]], end = w[[2]], variables = "all")
    expect_identical(part$samples, whole$samples[whole$samples$time >= w[[1]] &
                                                   whole$samples$time < w[[2]], ])
    window <- part$info$window
    for (table in c("events", "fixations", "saccades", "blinks", "blocks"))
      expect_identical(part[[table]], rows_in(whole[[table]], window), label = table)
    expect_identical(part$messages, whole$messages[whole$messages$time >= w[[1]] &
                                                     whole$messages$time < w[[2]], ])
    inside <- whole$trials$start_index < window[[2]] & whole$trials$end_index > window[[1]]
    # (a variable is typed by the values of the trials read: 402 alone is whole)
    expect_equal(part$trials, whole$trials[inside, ], label = "trials")
  }
})

test_that("a window of one sample, an empty one and one past the end", {
  skip_without_fixtures()
  path <- fixture("rate2000_both.orb")
  one <- read_orb(path, start = 5000.5, end = 5001)
  expect_identical(one$samples$time, 5000.5)
  only_start <- read_orb(path, start = 5100)
  expect_identical(min(only_start$samples$time), 5100)
  only_end <- read_orb(path, end = 5001)
  expect_identical(only_end$samples$time, c(5000, 5000.5))
  for (rec in list(read_orb(path, start = 5050, end = 5050), read_orb(path, start = 9e6))) {
    expect_identical(nrow(rec$samples), 0L)
    expect_type(rec$samples$gaze_x_left, "double")
    expect_type(rec$samples$status, "integer")
    expect_identical(nrow(rec$trials), 0L)
  }
  expect_error(read_orb(path, start = 10, end = 5), class = "orb_bad_argument",
               regexp = "`end` \\(5\\) comes before start \\(10\\)")
})
