// The shared library exports exactly its interface.
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>

TEST(Symbols, ExactlyTheInterfaceIsExported)
{
    std::string cmd = std::string("nm -D --defined-only ") + ORBAPI_LIBRARY_PATH;
    FILE* p = popen(cmd.c_str(), "r");
    ASSERT_NE(p, nullptr);
    std::set<std::string> exported;
    char line[512];
    while (std::fgets(line, sizeof line, p)) {
        char addr[64], kind[8], name[400];
        if (std::sscanf(line, "%63s %7s %399s", addr, kind, name) != 3)
            continue;
        std::string n(name);
        // Linker and sanitizer bookkeeping.
        if (n.rfind("__", 0) == 0 || n == "_init" || n == "_fini" || n == "_edata" || n == "_end")
            continue;
        exported.insert(n);
    }
    pclose(p);

    std::set<std::string> expected = {
        "orb_open_file", "orb_open_memory", "orb_get_last_error", "orb_close_file", "orb_get_next_data", "orb_get_float_data",
        "orb_get_sample_data", "orb_get_event_data", "orb_get_recording_data",
        "orb_get_sample_close_to_time", "orb_get_element_count", "orb_get_event", "orb_get_sample",
        "orb_get_recording", "orb_get_trial_count", "orb_jump_to_trial", "orb_get_trial_header",
        "orb_goto_previous_trial", "orb_goto_next_trial", "orb_goto_trial_with_start_time",
        "orb_goto_trial_with_end_time", "orb_set_trial_identifier", "orb_get_start_trial_identifier",
        "orb_get_end_trial_identifier", "orb_set_bookmark", "orb_free_bookmark", "orb_goto_bookmark",
        "orb_goto_next_bookmark", "orb_goto_previous_bookmark", "orb_get_preamble_text_length",
        "orb_get_preamble_text", "orb_get_version", "orb_library_version", "orb_get_revision",
        "orb_get_oculant_revision",
        "orb_set_log_function", "print_log",
        "orb_get_uncorrected_pupil_area", "orb_get_uncorrected_cr_area",
        "orb_get_uncorrected_cr2_area", "orb_get_pupil_dimension", "orb_get_cr_dimension",
        "orb_get_window_position", "orb_get_uncorrected_raw_pupil", "orb_get_uncorrected_raw_cr",
        "orb_get_uncorrected_raw_cr2", "orb_get_pupil_cr", "orb_get_last_error",
        "orb_read_columns", "orb_read_columns_memory", "orb_free_columns", "orb_columns_rows",
        "orb_columns_count", "orb_columns_column", "orb_columns_find", "orb_columns_text",
        "orb_columns_preamble", "orb_columns_revision", "orb_columns_oculant_revision",
        "orb_columns_items", "orb_column_type_size",
        "orb_goto_index", "orb_get_element_code", "orb_get_trial_span", "orb_get_camera_values",
        "orb_record_members", "orb_columns_layout", "orb_read_options_init", "orb_read", "orb_read_memory",
        "orb_read_open",
        "_Z23orb_get_sample_intervalP8_ORBFILE", "_Z26orb_get_sample_interval_exP8_ORBFILE",
        "_Z27get_filter_level_for_sampleP8_ORBFILE", "_Z25orb_get_sample_per_secondP8_ORBFILE",
        "_Z21orb_get_element_indexP8_ORBFILE",
    };
#ifdef ORBAPI_WITH_JAVA
    for (const char* m : {"getORBFile", "closeORBFile", "getTrialCount", "setTrialIdentifiers",
                          "getRevision", "getPreambleText", "peakItemIndex", "getItemCount",
                          "getNextData0", "getFloatData", "gotoIndex", "gotoPreviousBookmark",
                          "gotoNextBookmark", "gotoBookmark", "freeBookmark", "setBookmark",
                          "jumpToTrial", "gotoTrialWithEndTime", "gotoTrialWithStartTime",
                          "gotoNextTrial", "gotoPreviousTrial"})
        expected.insert(std::string("Java_com_norvanelab_orbapi_ORB_") + m);
    expected.insert("Java_com_norvanelab_orbapi_DefaultOptionAdapter_getFloatValue0");
#endif
    for (const std::string& s : expected) EXPECT_TRUE(exported.count(s)) << "missing " << s;
    for (const std::string& s : exported) EXPECT_TRUE(expected.count(s)) << "unexpected " << s;
}
