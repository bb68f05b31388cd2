# Every table of every reference recording, value for value, against what the
# item cursor of the function interface hands out for the same file.
tables <- c("samples", "events", "fixations", "saccades", "blinks", "messages",
            "blocks", "trials")

compare_case <- function(case, rec, sentinels) {
  for (table in tables) {
    expected <- reference_table(case$name, table)
    if (!sentinels) expected <- without_markers(expected, table)
    what <- sprintf("%s$%s%s", case$name, table, if (sentinels) " (sentinels)" else "")
    if (!length(expected)) {
      expect_identical(nrow(rec[[table]]), 0L, label = paste(what, "rows"))
      next
    }
    expect_table(rec[[table]], expected, what)
  }
}

test_that("every table equals the cursor's items, stored markers kept with sentinels", {
  skip_without_fixtures()
  for (k in seq_len(nrow(cases()))) {
    case <- cases()[k, ]
    compare_case(case, read_case(case, sentinels = TRUE), sentinels = TRUE)
  }
})

test_that("every table equals the cursor's items, with NA for the missing markers", {
  skip_without_fixtures()
  for (k in seq_len(nrow(cases()))) {
    case <- cases()[k, ]
    rec <- read_case(case)
    compare_case(case, rec, sentinels = FALSE)
    expect_s3_class(rec, "orb_recording")
    for (table in tables) expect_s3_class(rec[[table]], "data.frame")
  }
})

test_that("the reference recordings cover what the tables must get right", {
  skip_without_fixtures()
  rate2000 <- read_case(cases()[cases()$name == "rate2000_both", ])
  expect_true(any(rate2000$samples$time %% 1 == 0.5))
  expect_true(anyNA(rate2000$samples$gaze_x_left))
  expect_true(anyNA(rate2000$samples$status))
  expect_identical(rate2000$info$eyes, "both")
  left <- read_case(cases()[cases()$name == "rate250_left", ])
  expect_identical(left$info$eyes, "left")
  expect_identical(left$info$sample_rate, 250)
  expect_true(all(is.na(left$samples$gaze_x_right)))

  shifted <- read_case(cases()[cases()$name == "shifted", ])
  expect_identical(shifted$samples$time[[1]], 0)

  two <- read_case(cases()[cases()$name == "two_blocks_mode0", ])
  expect_identical(two$blocks$sample_rate, c(1000, 500))
  expect_type(two$trials$level, "integer")
  expect_type(two$trials$rt, "double")
  expect_type(two$trials$condition, "character")
  ended <- read_case(cases()[cases()$name == "two_blocks_trial_end", ])
  expect_true(anyNA(ended$trials$between))
  expect_true(all(c(-1L, 0L) %in% ended$samples$trial))

  velocities <- read_case(cases()[cases()$name == "two_blocks_velocities", ])
  expect_true("fast_raw_vel_y_right" %in% names(velocities$samples))
  camera <- read_case(cases()[cases()$name == "two_blocks_camera", ])
  expect_true(all(c("pupil_area_left", "pupil_cr_y_right") %in% names(camera$samples)))
  expect_type(camera$samples$window_x, "integer")
})

test_that("a damaged recording read tolerantly gives what comes before the damage, with warnings", {
  skip_without_fixtures()
  case <- cases()[cases()$name == "damaged", ]
  rec <- read_case(case)
  expect_gt(length(attr(rec, "warnings")), 0)
  expect_match(attr(rec, "warnings")[[1]], "damaged.orb: ", fixed = TRUE)
  expect_identical(rec$info$log, sub("^.*damaged\\.orb: ", "", attr(rec, "warnings")))
  expect_gt(nrow(rec$samples), 0)
  expect_match(format(summary(rec)), "^  damage", all = FALSE)
})

test_that("message texts are cut at NUL, lose one line feed and are valid UTF-8", {
  skip_without_fixtures()
  rec <- read_orb(fixture("texts.orb"))
  expect_identical(rec$messages$text, c("caf\u00e9 \ufffd ok", "line"))
  expect_true(all(validUTF8(rec$messages$text)))
  expect_identical(Encoding(rec$messages$text[[1]]), "UTF-8")
})

test_that("a recording's bytes read as its file does", {
  skip_without_fixtures()
  path <- fixture("two_blocks_compressed.orb")
  from_file <- read_orb(path, variables = "all")
  from_bytes <- read_orb(readBin(path, "raw", file.size(path)), variables = "all")
  for (table in tables) expect_identical(from_bytes[[table]], from_file[[table]])
  expect_null(from_bytes$info$path)
  expect_output(print(from_bytes), "<bytes>")
})
