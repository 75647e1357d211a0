// audioTrace
