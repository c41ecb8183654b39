-- Errors with their SQLSTATEs and the tool's messages, the trigger helper,
-- transactions and savepoints, and a damaged tree found by the checker.
CREATE EXTENSION IF NOT EXISTS zqrtree;

-- SQLSTATE, message and (when asked) detail of whatever `sql` raises.
CREATE FUNCTION try(sql text, detail bool DEFAULT false) RETURNS text LANGUAGE plpgsql AS $$
DECLARE
  st text; msg text; det text;
BEGIN
  EXECUTE sql;
  RETURN 'ok';
EXCEPTION WHEN OTHERS THEN
  GET STACKED DIAGNOSTICS st = RETURNED_SQLSTATE, msg = MESSAGE_TEXT, det = PG_EXCEPTION_DETAIL;
  RETURN st || ': ' || msg || CASE WHEN detail THEN E'\n' || det ELSE '' END;
END $$;

SELECT zqrtree_create('p', 2);
SELECT zqrtree_create('q', 1);
SELECT zqrtree_load('p', 'SELECT g, g, g, g + 1, g + 1 FROM generate_series(1, 100) g', 1.0);
CREATE TABLE plain (id int);
CREATE TABLE "MDRT$taken" (id int);

SELECT t AS call, try(t) AS result FROM (VALUES
  ($$SELECT zqrtree_create('p', 2)$$),
  ($$SELECT zqrtree_create('taken', 2)$$),
  ($$SELECT zqrtree_create('r', 4)$$),
  ($$SELECT zqrtree_create('', 2)$$),
  ($$SELECT zqrtree_create(repeat('n', 59), 2)$$),
  ($$SELECT zqrtree_insert('nope', 1, '{0,0,1,1}')$$),
  ($$SELECT zqrtree_query('taken', 'intersect', '{0,0,1,1}')$$),
  ($$SELECT zqrtree_insert('p', 1000, '{0,0,1}')$$),
  ($$SELECT zqrtree_insert('p', 1000, '{5,0,1,1}')$$),
  ($$SELECT zqrtree_insert('p', 1000, '{0,0,NaN,1}')$$),
  ($$SELECT zqrtree_insert('p', 1000, '{0,NULL,1,1}')$$),
  ($$SELECT zqrtree_insert('p', 1000, '{{0,0},{1,1}}')$$),
  ($$SELECT zqrtree_query('p', 'near', '{0,0,1,1}')$$),
  ($$SELECT zqrtree_query('p', 'or(within|close)', '{0,0,1,1}')$$),
  ($$SELECT zqrtree_delete('p', 5, '{5,5,6,7}')$$),
  ($$SELECT zqrtree_load('p', 'SELECT 1', 0.7)$$),
  ($$SELECT zqrtree_load('p', 'SELECT 1.5, 0, 0, 1, 1', 0.7)$$),
  ($$SELECT zqrtree_load('p', 'SELECT 1000, 0, 0, NULL, 1', 0.7)$$),
  ($$SELECT zqrtree_load('p', 'SELECT 1000, 2, 0, 1, 1', 0.7)$$),
  ($$SELECT zqrtree_load('p', 'SELECT 1000, ''{0,0,1,1}''::float8[]', 1.5)$$),
  ($$SELECT zqrtree_load('p', 'SELECT 7, ''{0,0,1,1}''::float8[]', 0.7)$$),
  ($$SELECT zqrtree_load('q', 'SELECT 1, 0, 1 UNION ALL SELECT 1, 2, 3', 0.7)$$),
  ($$SELECT zqrtree_drop('nope')$$)
) v(t);
-- A null argument is no call at all.
SELECT zqrtree_insert('p', 1000, NULL) IS NULL AS skipped;
SELECT zqrtree_check('p') AS entries_after_refusals;

-- A transaction's changes go with its rollback; a savepoint's with its own.
BEGIN;
SELECT count(zqrtree_insert('p', g, ARRAY[g, 0, g + 1, 1]::float8[])) FROM generate_series(101, 400) g;
SELECT count(*) FROM zqrtree_query('p', 'intersect', '{0,0,1000,1000}');
ROLLBACK;
BEGIN;
SELECT zqrtree_insert('p', 500, '{0,0,2,2}');
SAVEPOINT s;
SELECT count(zqrtree_insert('p', g, ARRAY[g, 0, g + 1, 1]::float8[])) FROM generate_series(101, 400) g;
SELECT zqrtree_delete('p', 500, '{9,9,9,9}');
ROLLBACK TO s;
SELECT zqrtree_delete('p', 3, '{3,3,4,4}');
COMMIT;
SELECT zqrtree_check('p');
SELECT array_agg(id ORDER BY id) FROM zqrtree_query('p', 'intersect', '{0,0,4,4}');
-- Rows a transaction wrote are overwritten in place only by the
-- subtransaction that wrote them: a rollback to a savepoint still finds the
-- bulk-loaded tree whole.
SELECT zqrtree_create('sp', 2);
BEGIN;
SELECT zqrtree_load('sp', 'SELECT g, g % 100, g % 97, g % 100 + 1, g % 97 + 1
                           FROM generate_series(1, 3000) g', 1.0);
SAVEPOINT a;
SELECT count(zqrtree_insert('sp', g, ARRAY[g % 100, g % 97, g % 100 + 1, g % 97 + 1]::float8[]))
  FROM generate_series(3001, 4000) g;
ROLLBACK TO a;
SELECT zqrtree_check('sp');
COMMIT;

-- The trigger keeps an index in step with a table: box array or columns.
CREATE TABLE parks (id bigint PRIMARY KEY, box float8[]);
CREATE TABLE roads (id int PRIMARY KEY, x0 float8, y0 float8, x1 numeric, y1 int);
SELECT zqrtree_create('parks', 2), zqrtree_create('roads', 2);
CREATE TRIGGER parks_zq AFTER INSERT OR UPDATE OR DELETE ON parks
  FOR EACH ROW EXECUTE FUNCTION zqrtree_trigger('parks', 'id', 'box');
CREATE TRIGGER roads_zq AFTER INSERT OR UPDATE OR DELETE ON roads
  FOR EACH ROW EXECUTE FUNCTION zqrtree_trigger('roads', 'id', 'x0', 'y0', 'x1', 'y1');
INSERT INTO parks SELECT g, ARRAY[g % 97, g % 89, g % 97 + 3, g % 89 + 2] FROM generate_series(1, 2000) g;
INSERT INTO roads SELECT g, g % 50, g % 40, g % 50 + 1, g % 40 + 1 FROM generate_series(1, 1000) g;
UPDATE parks SET box = ARRAY[box[1] + 1, box[2], box[3] + 1, box[4]] WHERE id % 3 = 0;
UPDATE parks SET id = id + 10000 WHERE id % 10 = 1;
UPDATE parks SET box = NULL WHERE id % 11 = 0;
UPDATE parks SET box = ARRAY[1, 1, 2, 2] WHERE id = 11;
DELETE FROM parks WHERE id % 7 = 0;
UPDATE roads SET y1 = y1 + 5 WHERE id % 4 = 0;
UPDATE roads SET x0 = NULL WHERE id % 9 = 0;
DELETE FROM roads WHERE id % 6 = 0;
SELECT zqrtree_check('parks') = (SELECT count(*) FROM parks WHERE box IS NOT NULL) AS parks_in_step,
       zqrtree_check('roads') = (SELECT count(*) FROM roads WHERE x0 IS NOT NULL) AS roads_in_step;
SELECT (SELECT array_agg(id ORDER BY id) FROM zqrtree_query('parks', 'intersect', '{10,10,20,20}'))
     = (SELECT array_agg(id ORDER BY id) FROM parks
        WHERE box[1] <= 20 AND box[3] >= 10 AND box[2] <= 20 AND box[4] >= 10) AS parks_answer,
       (SELECT array_agg(id ORDER BY id) FROM zqrtree_query('roads', 'within', '{5,5,25,25}'))
     = (SELECT array_agg(id::bigint ORDER BY id) FROM roads
        WHERE x0 >= 5 AND x1 <= 25 AND y0 >= 5 AND y1 <= 25) AS roads_answer;
-- A change made to the index behind the table's back shows at the next delete.
SELECT zqrtree_delete('parks', 2, '{2,2,5,4}');
SELECT try($$DELETE FROM parks WHERE id = 4$$);
SELECT try($$DELETE FROM parks WHERE id = 2$$);
SELECT try($$CREATE TRIGGER bad BEFORE INSERT ON parks FOR EACH ROW
             EXECUTE FUNCTION zqrtree_trigger('parks', 'id', 'box');
             INSERT INTO parks VALUES (99999, '{0,0,1,1}')$$);
SELECT try($$CREATE TRIGGER bad AFTER INSERT ON parks FOR EACH ROW
             EXECUTE FUNCTION zqrtree_trigger('parks', 'id', 'nobox');
             INSERT INTO parks VALUES (99999, '{0,0,1,1}')$$);

-- Damage the node table by hand: the checker names the node and the rule;
-- a write meets the damage and fails with the library's error stack.
SELECT zqrtree_create('c', 2);
SELECT zqrtree_load('c', 'SELECT g, g, g, g + 1, g + 1 FROM generate_series(1, 300) g', 1.0);
SELECT level, count(*) FROM "MDRT$c" GROUP BY level ORDER BY level;
BEGIN;
UPDATE "MDRT$c" SET parent_id = 99 WHERE id = (SELECT min(id) FROM "MDRT$c" WHERE level = 0);
SELECT try($$SELECT zqrtree_check('c')$$);
ROLLBACK;
BEGIN;
UPDATE "MDRT$c" SET cells = substr(cells, 1, 10) WHERE id = 1;
SELECT try($$SELECT zqrtree_check('c')$$);
ROLLBACK;
BEGIN;
DELETE FROM "MDRT$c" WHERE id = (SELECT min(id) FROM "MDRT$c" WHERE level = 0);
SELECT try($$SELECT zqrtree_check('c')$$);
SELECT try($$SELECT zqrtree_insert('c', 1000, '{1,1,1,1}')$$, true);
ROLLBACK;
DELETE FROM "MDRT$c" WHERE id = 1;
SELECT try($$SELECT zqrtree_insert('c', 1000, '{1,1,1,1}')$$, true);
SELECT zqrtree_drop('c');
SELECT try($$SELECT zqrtree_check('c')$$);
SELECT count(*) AS catalog_rows_of_c FROM zqrtree_catalog WHERE node::text LIKE '%MDRT$c%';
