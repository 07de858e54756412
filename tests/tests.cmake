zol_add_test(LoggingTest)
zol_add_test(VocabularyTest)
